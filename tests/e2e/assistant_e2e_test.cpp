// CONVERT_WITH_ASSISTANT through the whole product: the list file the gateway hands over, and
// the PDFs the real assistant makes of it in the documents folder.
#include <gmock/gmock.h>

#include "support/conversion.h"
#include "workstation.h"

namespace tarn::test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

class assistant_e2e_test : public workstation_test {};

TEST_F(assistant_e2e_test, TheAssistantGetsACopyOfEachFoundDocumentAndMakesItsPdf) {
  // A blank and a Latin-1 letter in the names: the list holds one byte per character.
  const auto refs = w_->import({w_->make_document("hotel.docx", "Hotelword"),
                                w_->make_document("india notes.txt", "Indiaword"),
                                w_->make_document("Grüße.odt", "Juliettword")});
  ASSERT_EQ(refs.size(), 3u);
  std::map<std::string, std::pair<std::string, std::string>> by_ref = {
      {refs[0], {"hotel.docx", "Hotelword"}},
      {refs[1], {"india notes.txt", "Indiaword"}},
      {refs[2], {"Gr\xfc\xdf" "e.odt", "Juliettword"}}};
  const std::string missing = "999999.1";

  list_file_catcher lists(w_->temp());
  w_->send_command(kConvertWithAssistant, {refs[0], refs[1], refs[2], missing});
  const auto list = lists.next();
  ASSERT_TRUE(list) << w_->trace();

  // Rows in ascending order of the references; the missing document is left out.
  std::string expected = "[FILES]\r\nCount=3\r\nDelete=1\r\n";
  int row = 0;
  for (const auto& [ref, file] : by_ref)
    expected += std::to_string(++row) + "=\"" + (w_->temp() / "").string() + file.first + "\"\r\n";
  EXPECT_EQ(*list, expected);

  const std::filesystem::path out = w_->assistant_output();
  const std::string pdfs[] = {"hotel.pdf", "india notes.pdf", "Grüße.pdf"};
  // The assistant deletes the copies and the list once each PDF is in place.
  ASSERT_TRUE(eventually([&] {
    for (const auto& pdf : pdfs)
      if (!std::filesystem::exists(out / pdf)) return false;
    return w_->temp_files().empty();
  })) << "temp: " << ::testing::PrintToString(w_->temp_files());
  EXPECT_THAT(pdf_text(out / "hotel.pdf"), HasSubstr("Hotelword"));
  EXPECT_THAT(pdf_text(out / "india notes.pdf"), HasSubstr("Indiaword"));
  EXPECT_THAT(pdf_text(out / "Grüße.pdf"), HasSubstr("Juliettword"));

  const std::string logs = w_->logs();
  EXPECT_THAT(logs, HasSubstr("send_command(CONVERT_WITH_ASSISTANT, \"\", \"\", \"" + missing +
                              "\")"));
  EXPECT_THAT(logs, HasSubstr("pDMSHelper->DocGetProperties(\"\", \"\", \"" + missing + "\") -> "));
  for (const auto& ref : refs)
    EXPECT_EQ(w_->dms({"show", ref}).at("versions"), 1) << "the store is only read";
}

}  // namespace
}  // namespace tarn::test
