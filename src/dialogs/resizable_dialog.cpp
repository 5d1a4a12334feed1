#include "dialogs/resizable_dialog.h"

#include <QLayout>
#include <QResizeEvent>
#include <QScreen>

#include "dialogs/dialog_look.h"

namespace tarn {

resizable_dialog::resizable_dialog(frame_size_io size_io, QWidget* parent)
    : QDialog(parent), frame_(std::move(size_io)) {
  make_question_window(this, true);
  setSizeGripEnabled(true);
}

resizable_dialog::~resizable_dialog() = default;

void resizable_dialog::open_at(QSize opening) {
  if (layout() != nullptr) {
    layout()->activate();
    opening = opening.expandedTo(layout()->minimumSize());
  }
  resize(opening);
  frame_.on_init({opening.width(), opening.height()});
  setMinimumSize(opening);
  if (auto stored = frame_.restore_size()) {
    const QSize screen_size = screen() != nullptr ? screen()->availableSize() : QSize();
    const frame_size fitted =
        fit_frame_size(*stored, frame_.minimum(), {screen_size.width(), screen_size.height()});
    resize(fitted.width, fitted.height);
  }
}

void resizable_dialog::resizeEvent(QResizeEvent* event) {
  QDialog::resizeEvent(event);
  frame_.on_size({event->size().width(), event->size().height()});
}

void resizable_dialog::showEvent(QShowEvent* event) {
  QDialog::showEvent(event);
  bring_to_front(this);
}

}  // namespace tarn
