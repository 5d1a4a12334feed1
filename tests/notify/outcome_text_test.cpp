#include "notify/outcome_text.h"

#include <gtest/gtest.h>

namespace tarn {
namespace {

using std::chrono::seconds;

TEST(outcome_text_test, TheNotificationSaysWhatWasStoredAndWhatWasLeftOut) {
  const left_out_document slow{"plan.xlsx", left_out_reason::timed_out, seconds(120)};
  const left_out_document scan{"scan.tif", left_out_reason::unreadable};
  const struct {
    const char* name;
    create_pdf_outcome outcome;
    const char* summary;  // null: nothing is shown
    const char* body;
    bool urgent;
  } cases[] = {
      {"cancelled or nothing to do", {}, nullptr, "", false},
      {"a new version", {{{"Offer.pdf", 2, "12"}}, {}}, "Create PDF: done",
       "Stored 'Offer.pdf' as a new version of 12", false},
      {"related, joined", {{{"a.pdf", 1, "7", 3}}, {}}, "Create PDF: done",
       "Stored 'a.pdf', joined from 3 documents, as a new document related to 7", false},
      {"several new", {{{"a.pdf", 0, "1"}, {"b.pdf", 0, "2"}}, {}}, "Create PDF: done",
       "2 PDFs stored as new documents", false},
      {"stored and left out", {{{"a.pdf", 0, "1"}}, {slow, scan}},
       "Create PDF: done, some documents left out",
       "Stored 'a.pdf' as a new document\n2 documents couldn't be converted: plan.xlsx (took "
       "longer than 120 s), scan.tif (damaged or unreadable)",
       true},
      {"nothing stored", {{}, {{"9.1", left_out_reason::not_in_store}}},
       "Create PDF: nothing stored", "1 document couldn't be converted: 9.1 (not in the store)",
       true},
      {"many left out", {{}, std::vector<left_out_document>(7, {"x", left_out_reason::unreadable})},
       "Create PDF: nothing stored",
       "7 documents couldn't be converted: x (damaged or unreadable), x (damaged or unreadable), x "
       "(damaged or unreadable), x (damaged or unreadable), x (damaged or unreadable) and 2 more",
       true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto n = create_pdf_notification(c.outcome);
    ASSERT_EQ(n.has_value(), c.summary != nullptr);
    if (!n) continue;
    EXPECT_EQ(n->summary, c.summary);
    EXPECT_EQ(n->body, c.body);
    EXPECT_EQ(n->urgent, c.urgent);
  }
}

TEST(outcome_text_test, APrintHelperRunGivesItsReason) {
  const struct {
    print_run run;
    const char* words;
  } cases[] = {
      {{false, 1}, "damaged or unreadable"},
      {{false, 3}, "the PDF couldn't be written"},
      {{false, 4}, "took longer than 120 s"},
      {{false, 5}, "the office program failed"},
      {{false, std::nullopt}, "conversion failed"},
      {{false, std::nullopt, true, seconds(300)}, "took longer than 300 s"},
  };
  for (const auto& c : cases) {
    const seconds limit = c.run.timed_out ? c.run.limit : seconds(120);
    EXPECT_EQ(plain_words({"x", print_failure_reason(c.run), limit}), c.words)
        << c.run.exit_code.value_or(-1);
  }
}

}  // namespace
}  // namespace tarn
