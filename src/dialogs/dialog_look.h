// What both dialogs share in how they look and come up: sizes in dialog units of the dialog's
// font, and coming to the front above the browser the user is probably in.
#pragma once

#include <QFont>
#include <QSize>
#include <initializer_list>

class QWidget;

namespace tarn {

// Dialog units: a quarter of the font's average character width across, an eighth of its
// height down, so that a layout keeps its proportions with any font.
class dialog_units {
 public:
  explicit dialog_units(const QFont& font);
  int x(int units) const { return units * base_x_ / 4; }
  int y(int units) const { return units * base_y_ / 8; }
  QSize size(int width, int height) const { return {x(width), y(height)}; }

 private:
  int base_x_;
  int base_y_;
};

// `widget` with the object name `name`, by which tests find it.
template <typename Widget>
Widget* named(Widget* widget, const char* name) {
  widget->setObjectName(name);
  return widget;
}

// How far a control sits in under a radio button, so that it lines up with the button's text.
int indent_of_radio_text(const QWidget* radio);

// Tab moves through `widgets` in the order given.
void set_tab_order(std::initializer_list<QWidget*> widgets);

// Window flags of a question: a dialog that stays above other windows.
void make_question_window(QWidget* dialog, bool resizable);

// Raises and activates the window; call when it is shown.
void bring_to_front(QWidget* dialog);

// Whether Qt runs without a display a user can see.
bool platform_is_offscreen();

// Call before the QApplication is made: unless QT_QPA_PLATFORM says otherwise, Qt tries X
// (where a dialog may raise itself and stay on top), then Wayland, and without either runs
// offscreen instead of aborting.
void prefer_display_platform();

}  // namespace tarn
