// tarnask: shows one of the gateway's questions on the display given in its environment and
// prints the answer. The gateway starts it when it runs without a display of its own while
// the user's session has one; the dialog's state comes as JSON on standard input, the state
// at the dialog's end goes as JSON to standard output.
#include <CLI/CLI.hpp>

#include <QApplication>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <string>

#include "dialogs/child_question.h"
#include "dialogs/dialog_look.h"

int main(int argc, char** argv) {
  CLI::App app{
      "tarnask: show one question of the Vantu Tarn gateway and print the answer.\n"
      "Reads the dialog's state as JSON on standard input and prints its end state as JSON.\n"
      "Exit codes: 0 answered (OK or Cancel, see \"accepted\"), 1 no display could be opened,\n"
      "2 bad command line or input."};
  app.name("tarnask");
  std::string question;
  app.add_option("question", question,
                 "merge-sort: one PDF or one each, the order, how to save;\n"
                 "how-to-save: how to save the PDF of one document")
      ->required()
      ->check(CLI::IsMember({tarn::kMergeSortQuestion, tarn::kHowToSaveQuestion}));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : tarn::kTarnaskBadRequest;
  }

  std::string request(std::istreambuf_iterator<char>(std::cin), {});
  // Never abort for want of a display: say so instead.
  tarn::prefer_display_platform();
  int qt_argc = 1;
  QApplication qt(qt_argc, argv);

  std::string reply, err;
  const int code = question == tarn::kMergeSortQuestion
                       ? tarn::answer_merge_sort(request, &reply, &err)
                       : tarn::answer_how_to_save(request, &reply, &err);
  if (code != tarn::kTarnaskAnswered) {
    std::cerr << "tarnask: "
              << (code == tarn::kTarnaskBadRequest ? "bad request on standard input: " : "") << err
              << "\n";
    return code;
  }
  std::cout << reply << std::flush;
  // The gateway waits for the exit before it acts on the answer: skip Qt's teardown (a tenth
  // of a second) between the user's OK and the work. The display server cleans up after us.
  std::_Exit(std::cout ? tarn::kTarnaskAnswered : tarn::kTarnaskBadRequest);
}
