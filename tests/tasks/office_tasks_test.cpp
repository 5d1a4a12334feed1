// The tasks on the real print helper and the real office. All commands run in one test, so
// that they share one warm office.
#include "support/conversion.h"
#include "task_fixture.h"
#include "tasks/create_pdf_task.h"

namespace tarn {
namespace {

class office_tasks_test : public test::task_fixture {
 protected:
  void TearDown() override { test::end_office_worker(env_.tmp()); }
  void run(std::set<std::string> doc_refs) {
    create_pdf_task(log_, dms_, std::make_unique<attach_handler>(), questions_, "", "",
                    std::move(doc_refs))
        .do_work();
  }
};

TEST_F(office_tasks_test, DocumentsBecomePdfsThroughTheOffice) {
  install_helpers(helper::real);
  add_document("alpha", "txt", "Alpha words\n");
  add_document("beta", "fodt",
               "<?xml version=\"1.0\" encoding=\"UTF-8\"?><office:document xmlns:office="
               "\"urn:oasis:names:tc:opendocument:xmlns:office:1.0\" xmlns:text=\"urn:oasis:"
               "names:tc:opendocument:xmlns:text:1.0\" office:version=\"1.2\" office:mimetype="
               "\"application/vnd.oasis.opendocument.text\"><office:body><office:text><text:p>"
               "Beta words</text:p></office:text></office:body></office:document>");
  add_document("gamma", "txt", "Gamma words\n");
  questions_->then_merge_sort([](merge_sort_model& d) {
    d.choose_merge();
    return d.move_up(2) == 1 && d.move_up(1) == 0;  // gamma, alpha, beta
  });
  run({"1.1", "2.1", "3.1"});
  questions_->then_how_to_save([](how_to_save_model& d) {
    d.choose(kHowNewVersion);
    return true;
  });
  run({"2.1"});
  EXPECT_EQ(log_texts("ERROR:"), std::vector<std::string>{});
  EXPECT_EQ(store_summary(),
            (std::vector<std::string>{
                "1.1 alpha.txt Inbox", "2.1 beta.fodt Inbox", "2.2 beta.pdf Inbox: Beta words",
                "3.1 gamma.txt Inbox [derived 4]",
                "4.1 gamma.pdf Inbox [source 3]: Gamma words Alpha words Beta words"}));
  EXPECT_EQ(files_in_temp(), std::vector<std::string>{});
}

}  // namespace
}  // namespace tarn
