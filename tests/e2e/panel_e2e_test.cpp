// The start page in a real headless Chromium: it shows what it asked the gateway, and in its
// "Try a command" panel a person types and clicks, and the command's work lands in the store.
#include <gmock/gmock.h>

#include "chromium_page.h"
#include "support/run_program.h"
#include "workstation.h"

namespace tarn::test {
namespace {

using ::testing::HasSubstr;

class panel_e2e_test : public workstation_test {};

// Resolves when the element's status class is no longer "pending": its class and text.
const char* const kSettled = R"((id) => new Promise((resolve) => {
  const status = document.getElementById(id);
  const settled = () => !status.classList.contains('pending') && status.textContent !== '';
  const done = () => resolve({cls: status.className, text: status.textContent});
  if (settled()) return done();
  new MutationObserver(() => { if (settled()) done(); })
      .observe(status, {attributes: true, childList: true, characterData: true, subtree: true});
}))";

std::string settled(const std::string& id) { return "(" + std::string(kSettled) + ")('" + id + "')"; }

TEST_F(panel_e2e_test, WithoutAGatewayBehindItThePageSaysSo) {
  chromium_page page(w_->env().root() / "chromium" / "offline",
                     "file://" + dist_program("www-data/index.html"));
  ASSERT_EQ(page.why(), "");
  const nlohmann::json status = page.evaluate(settled("status"));
  EXPECT_EQ(status.value("cls", ""), "status error");
  EXPECT_THAT(status.value("text", ""), HasSubstr("The gateway can't be reached"));
  EXPECT_EQ(page.evaluate("document.getElementById('version').textContent"), "unknown");
}

TEST_F(panel_e2e_test, ATypedCommandIsPostedAndItsPdfLandsInTheStore) {
  const auto refs = w_->import({w_->make_document("november.docx", "Novemberword"),
                                w_->make_document("oscar.odt", "Oscarword")});
  ASSERT_EQ(refs.size(), 2u);
  w_->remember("do_merge", 0);
  w_->remember("saver_new_related", 1);
  // Markup, quotes, a backslash and non-ASCII: they must reach the store as typed.
  const std::string location = "Präsentation <b>\"x\"</b> \\ ü";

  chromium_page page(w_->env().root() / "chromium" / "profile", "http://localhost:9090/");
  ASSERT_EQ(page.why(), "");
  EXPECT_EQ(page.evaluate(settled("status")).value("cls", ""), "status ok");
  EXPECT_EQ(page.evaluate("document.getElementById('version').textContent"),
            "Vantu Tarn (version 5.0)");
  EXPECT_EQ(page.evaluate("document.getElementById('logs-link').getAttribute('href')"), "/logs");

  ASSERT_TRUE(page.click("try-location"));
  ASSERT_TRUE(page.type(location));
  ASSERT_TRUE(page.click("try-refs"));
  // As an administrator pastes them: a blank around one, an empty line, one given twice.
  ASSERT_TRUE(page.type("  " + refs[1] + "\n\n" + refs[0] + "\n" + refs[1] + "\n"));

  x_display::answer user(w_->x(), "Merge items to one PDF", {"alt+o", "Return"});
  const nlohmann::json before = w_->list();
  ASSERT_TRUE(page.click("try-create-pdf"));
  const nlohmann::json status = page.evaluate(settled("try-status"));
  ASSERT_EQ(page.why(), "");
  EXPECT_EQ(status.value("cls", ""), "status ok") << status.dump();
  EXPECT_THAT(status.value("text", ""), HasSubstr("The gateway took CREATE_PDF with 2 references"));
  ASSERT_TRUE(user.answered());

  // What the page says it sent is what a browser client sends, and the reply came back whole.
  const nlohmann::json shown = page.evaluate(
      "({sent: document.getElementById('try-sent').textContent,"
      "  reply: document.getElementById('try-reply').textContent,"
      "  markup: document.querySelectorAll('#try-result pre *:not(code)').length})");
  const nlohmann::json sent = nlohmann::json::parse(shown.value("sent", ""), nullptr, false);
  ASSERT_TRUE(sent.is_array()) << shown.dump();
  const int seqid = sent[3].get<int>();
  EXPECT_EQ(sent, nlohmann::json::parse(send_command_message(kCreatePdf, "", location,
                                                             {refs[1], refs[0]}, seqid)));
  EXPECT_EQ(shown.value("reply", ""), "[1,\"send_command\",2," + std::to_string(seqid) + ",{}]");
  EXPECT_EQ(shown.value("markup", -1), 0) << "typed text must stay text";

  // Documents without a folder: the merged PDF goes into the location's folder.
  ASSERT_TRUE(eventually([&] {
    return w_->list().size() == before.size() + 1 && w_->temp_files().empty();
  })) << "store " << before.size() << " -> " << w_->list().size() << " documents, temp "
         << ::testing::PrintToString(w_->temp_files());
  const nlohmann::json in_folder = w_->dms({"list", "--folder", location});
  ASSERT_EQ(in_folder.size(), 1u) << in_folder.dump();
  // The rows, and so the pages, come in ascending order of the references.
  const bool november_first = refs[0] < refs[1];
  EXPECT_EQ(in_folder[0].at("name"), november_first ? "november" : "oscar");
  EXPECT_EQ(in_folder[0].at("extension"), "pdf");
  const auto pdf = w_->exported(in_folder[0].at("ref"));
  EXPECT_EQ(pdf.pages, 2);
  EXPECT_EQ(pdf.text.find("Novemberword") < pdf.text.find("Oscarword"), november_first)
      << pdf.text;
}

}  // namespace
}  // namespace tarn::test
