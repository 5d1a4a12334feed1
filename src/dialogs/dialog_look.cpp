#include "dialogs/dialog_look.h"

#include <QFontMetrics>
#include <QGuiApplication>
#include <QStyle>
#include <QWidget>

namespace tarn {

dialog_units::dialog_units(const QFont& font) {
  QFontMetrics metrics(font);
  const int letters =
      metrics.horizontalAdvance("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz");
  base_x_ = (letters / 26 + 1) / 2;
  base_y_ = metrics.height();
}

int indent_of_radio_text(const QWidget* radio) {
  const QStyle* style = radio->style();
  return style->pixelMetric(QStyle::PM_ExclusiveIndicatorWidth, nullptr, radio) +
         style->pixelMetric(QStyle::PM_RadioButtonLabelSpacing, nullptr, radio);
}

void set_tab_order(std::initializer_list<QWidget*> widgets) {
  for (auto it = widgets.begin(); it != widgets.end() && it + 1 != widgets.end(); ++it)
    QWidget::setTabOrder(*it, *(it + 1));
}

void make_question_window(QWidget* dialog, bool resizable) {
  Qt::WindowFlags flags = Qt::Dialog | Qt::CustomizeWindowHint | Qt::WindowTitleHint |
                          Qt::WindowSystemMenuHint | Qt::WindowCloseButtonHint |
                          Qt::WindowStaysOnTopHint;
  if (resizable) flags |= Qt::WindowMaximizeButtonHint;
  dialog->setWindowFlags(flags);
}

void bring_to_front(QWidget* dialog) {
  if (!platform_is_offscreen()) dialog->raise();  // nothing to be above there
  dialog->activateWindow();
}

void prefer_display_platform() {
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
    qputenv("QT_QPA_PLATFORM", "xcb;wayland;offscreen");
}

bool platform_is_offscreen() {
  if (qobject_cast<QGuiApplication*>(QCoreApplication::instance()) == nullptr) return true;
  const QString name = QGuiApplication::platformName();
  return name == "offscreen" || name == "minimal" || name.isEmpty();
}

}  // namespace tarn
