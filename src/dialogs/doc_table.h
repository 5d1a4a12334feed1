// The documents' list of MergeSortDlg: rows of name, number and version with grid lines, one
// selected row at most, a vertical scroll bar always shown. At its first size the columns take
// 60% (less the scroll bar), 25% and 15% of the width; the first takes all later growth. Text
// that doesn't fit is elided and shown whole as a tooltip. Ctrl+Up and Ctrl+Down ask to move
// the selected row.
#pragma once

#include <QTableWidget>
#include <functional>

#include "dialogs/merge_sort_model.h"

namespace tarn {

class doc_table : public QTableWidget {
  Q_OBJECT

 public:
  explicit doc_table(QWidget* parent = nullptr);

  // Called with -1 or +1 for Ctrl+Up or Ctrl+Down.
  std::function<void(int step)> on_move;

  void show_row(int row, const merge_sort_row& cells);
  // The selected row, or merge_sort_model::kNoRow.
  int selected_row() const;
  void select_row(int row);
  // Whether the cell's text is cut short, and so shown whole as a tooltip.
  bool cell_elided(int row, int column) const;

 protected:
  void keyPressEvent(QKeyEvent* event) override;
  bool viewportEvent(QEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;

 private:
  bool column_widths_set_ = false;
};

}  // namespace tarn
