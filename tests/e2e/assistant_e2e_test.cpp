// CONVERT_WITH_ASSISTANT through the whole product: the real assistant makes a PDF of each
// document the gateway found, in the documents folder, from the list the gateway handed over.
#include <gmock/gmock.h>

#include "support/conversion.h"
#include "workstation.h"

namespace tarn::test {
namespace {

using ::testing::HasSubstr;

class assistant_e2e_test : public workstation_test {};

TEST_F(assistant_e2e_test, TheAssistantGetsACopyOfEachFoundDocumentAndMakesItsPdf) {
  // A blank and a Latin-1 letter in the names: the list holds one byte per character.
  const std::pair<std::string, std::string> documents[] = {
      {"hotel", "Hotelword"}, {"india notes", "Indiaword"}, {"Grüße", "Juliettword"}};
  const auto refs = w_->import({w_->make_document("hotel.docx", "Hotelword"),
                                w_->make_document("india notes.txt", "Indiaword"),
                                w_->make_document("Grüße.docx", "Juliettword")});
  ASSERT_EQ(refs.size(), 3u);
  const std::string missing = "999999.1";
  // Files of the user's that bear a copy's name, in TMPDIR and in the private folder.
  const std::filesystem::path users[] = {w_->shared_tmp() / "hotel.docx",
                                         w_->temp() / "hotel.docx"};
  for (const auto& file : users) write_file(file, "the user's own");
  w_->send_command(kConvertWithAssistant, {refs[0], refs[1], refs[2], missing});

  // The assistant deletes the copies and the list once each PDF is in place.
  const std::filesystem::path out = w_->assistant_output();
  ASSERT_TRUE(eventually([&] {
    for (const auto& [name, text] : documents)
      if (!std::filesystem::exists(out / (name + ".pdf"))) return false;
    return w_->temp_files() == std::vector<std::string>{"hotel.docx"};
  })) << "temp: "
      << ::testing::PrintToString(w_->temp_files()) << "\n"
      << w_->trace();
  for (const auto& [name, text] : documents)
    EXPECT_THAT(pdf_text(out / (name + ".pdf")), HasSubstr(text));
  for (const auto& file : users) {
    EXPECT_EQ(read_file(file), "the user's own") << file;
    std::filesystem::remove(file);
  }

  EXPECT_THAT(w_->logs(),
              HasSubstr("pDMSHelper->DocGetProperties(\"\", \"\", \"" + missing + "\") -> "));
  for (const auto& ref : refs)
    EXPECT_EQ(w_->dms({"show", ref}).at("versions"), 1) << "the store is only read";
}

}  // namespace
}  // namespace tarn::test
