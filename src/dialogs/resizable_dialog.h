// A dialog with a resizable frame: Qt's layouts let the controls that hang right or bottom
// follow the window; resizable_frame keeps the minimum (the size at opening) and stores the
// last size, which the next opening restores, within the screen.
#pragma once

#include <QDialog>

#include "dialogs/resizable_frame.h"

namespace tarn {

class resizable_dialog : public QDialog {
  Q_OBJECT

 public:
  // Stores the last size, on OK and on Cancel alike.
  ~resizable_dialog() override;

 protected:
  resizable_dialog(frame_size_io size_io, QWidget* parent);

  // Call at the end of the derived constructor, with the layout complete: the dialog takes
  // `opening` (or the layout's minimum, if that is larger) as its size and its minimum, then
  // the stored size.
  void open_at(QSize opening);

  void resizeEvent(QResizeEvent* event) override;
  void showEvent(QShowEvent* event) override;

 private:
  resizable_frame frame_;
};

}  // namespace tarn
