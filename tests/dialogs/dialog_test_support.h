// Shared by the dialogs' tests: documents, the remembered values, playing the user on a modal
// dialog, and pictures of the dialogs.
#pragma once

#include <QAbstractButton>
#include <QApplication>
#include <QPushButton>
#include <QTimer>
#include <QtTest/QTest>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "convutils/CConvRegKey.h"
#include "dialogs/dialog_keys.h"
#include "dms/doc_description.h"
#include "support/test_env.h"

namespace tarn::test {

using docs = std::vector<std::shared_ptr<doc_description>>;

inline std::shared_ptr<doc_description> doc(const std::string& name, const std::string& number) {
  auto d = std::make_shared<doc_description>("ref-" + number);
  d->name = name;
  d->doc_number = number;
  d->version = "1";
  d->extension = "docx";
  return d;
}

// "Document 1", "Document 2", ... numbered 1001, 1002, ...
inline docs numbered_docs(int n) {
  docs list;
  for (int i = 1; i <= n; ++i)
    list.push_back(doc("Document " + std::to_string(i), std::to_string(1000 + i)));
  return list;
}

// A value under HKCU\Software\Vantu\PDF\V1\iManage; empty when missing.
inline std::optional<uint32_t> stored(const char* name) {
  DWORD number = 0;
  CConvRegKey value(reg_root::current_user, dialog_key(kDialogSubkey), name, DWORD{0});
  if (value.read_number(&number) != kErrorSuccess) return std::nullopt;
  return number;
}

inline void store(const char* name, uint32_t number) {
  CConvRegKey(reg_root::current_user, dialog_key(kDialogSubkey), name, DWORD{0})
      .write_number(number);
}

template <typename Widget = QWidget>
Widget* child(QWidget* dialog, const char* name) {
  auto* widget = dialog->findChild<Widget*>(name);
  EXPECT_NE(widget, nullptr) << name;
  return widget;
}

// Plays the user on the next modal dialog once it is up. A dialog the user left open is
// closed and fails the test, so that nothing hangs.
inline void as_user(std::function<void(QWidget* dialog)> user) {
  QTimer::singleShot(0, [user = std::move(user)] {
    QWidget* dialog = QApplication::activeModalWidget();
    ASSERT_NE(dialog, nullptr) << "no modal dialog is up";
    EXPECT_TRUE(QTest::qWaitForWindowActive(dialog));
    user(dialog);
    if (!QTest::qWaitFor([dialog] { return QApplication::activeModalWidget() != dialog; }, 5000)) {
      ADD_FAILURE() << "the dialog is still open";
      dialog->close();
    }
  });
}

// A key where the focus is. A mnemonic holds its button down a moment before it clicks;
// the next key waits for that click.
inline void type(QWidget* dialog, Qt::Key key, Qt::KeyboardModifiers modifiers = {}) {
  QTest::keyClick(QApplication::focusWidget() ? QApplication::focusWidget() : dialog, key,
                  modifiers);
  EXPECT_TRUE(QTest::qWaitFor([dialog] {
    for (auto* button : dialog->findChildren<QAbstractButton*>())
      if (button->isDown()) return false;
    return true;
  }));
}

// A push button in its middle; a radio button or check box on its indicator, since its
// widget may be wider than the part that takes clicks.
inline void click(QWidget* widget, std::optional<QPoint> at = std::nullopt) {
  ASSERT_NE(widget, nullptr);
  const bool indicator =
      !qobject_cast<QPushButton*>(widget) && qobject_cast<QAbstractButton*>(widget);
  QTest::mouseClick(widget, Qt::LeftButton, {},
                    at          ? *at
                    : indicator ? QPoint(8, widget->height() / 2)
                                : widget->rect().center());
}

// Into <build>/dialog-pictures/<name>.png.
inline void save_picture(QWidget* dialog, const std::string& name) {
  const auto folder = std::filesystem::path(TARN_BINARY_DIR) / "dialog-pictures";
  std::filesystem::create_directories(folder);
  EXPECT_TRUE(dialog->grab().save(QString::fromStdString((folder / (name + ".png")).string())));
}

}  // namespace tarn::test
