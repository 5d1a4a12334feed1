#include "dialogs/doc_table.h"

#include <QHeaderView>
#include <QHelpEvent>
#include <QKeyEvent>
#include <QResizeEvent>
#include <QScrollBar>
#include <QStyle>
#include <QToolTip>

namespace tarn {

doc_table::doc_table(QWidget* parent) : QTableWidget(0, 3, parent) {
  setHorizontalHeaderLabels({"Files", "Doc. Number", "Version"});
  for (int column = 0; column < 3; ++column)
    horizontalHeaderItem(column)->setTextAlignment(Qt::AlignLeft | Qt::AlignVCenter);
  verticalHeader()->hide();
  verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
  verticalHeader()->setDefaultSectionSize(fontMetrics().height() + 6);
  horizontalHeader()->setStretchLastSection(false);
  horizontalHeader()->setSectionResizeMode(0, QHeaderView::Stretch);
  horizontalHeader()->setHighlightSections(false);
  setSelectionBehavior(QAbstractItemView::SelectRows);
  setSelectionMode(QAbstractItemView::SingleSelection);
  setEditTriggers(QAbstractItemView::NoEditTriggers);
  setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOn);
  setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  setShowGrid(true);
  setWordWrap(false);
  setTextElideMode(Qt::ElideRight);
  setTabKeyNavigation(false);
}

void doc_table::show_row(int row, const merge_sort_row& cells) {
  const std::string* texts[] = {&cells.name, &cells.doc_number, &cells.version};
  for (int column = 0; column < 3; ++column) {
    QTableWidgetItem* cell = item(row, column);
    if (cell == nullptr) {
      cell = new QTableWidgetItem;
      cell->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable);
      setItem(row, column, cell);
    }
    cell->setText(QString::fromStdString(*texts[column]));
  }
}

int doc_table::selected_row() const {
  const QModelIndexList rows = selectionModel()->selectedRows();
  return rows.isEmpty() ? merge_sort_model::kNoRow : rows.first().row();
}

void doc_table::select_row(int row) {
  if (row < 0 || row >= rowCount()) return;
  setCurrentCell(row, 0, QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
  scrollToItem(item(row, 0));
}

void doc_table::resizeEvent(QResizeEvent* event) {
  if (!column_widths_set_ && event->size().width() > 0) {
    // Files stretches, so it gets what the other two leave.
    const float width = static_cast<float>(event->size().width());
    setColumnWidth(1, static_cast<int>(width * 0.25f));
    setColumnWidth(2, static_cast<int>(width * 0.15f));
    column_widths_set_ = true;
  }
  QTableWidget::resizeEvent(event);
}

bool doc_table::cell_elided(int row, int column) const {
  const QModelIndex index = model()->index(row, column);
  // The item view leaves a focus-frame margin on each side of the text.
  const int margin = style()->pixelMetric(QStyle::PM_FocusFrameHMargin, nullptr, this) + 1;
  const int room = visualRect(index).width() - 2 * margin;
  return fontMetrics().horizontalAdvance(index.data().toString()) > room;
}

void doc_table::keyPressEvent(QKeyEvent* event) {
  if (event->modifiers() == Qt::ControlModifier &&
      (event->key() == Qt::Key_Up || event->key() == Qt::Key_Down)) {
    if (on_move) on_move(event->key() == Qt::Key_Up ? -1 : 1);
    event->accept();
    return;
  }
  QTableWidget::keyPressEvent(event);
}

bool doc_table::viewportEvent(QEvent* event) {
  if (event->type() == QEvent::ToolTip) {
    auto* help = static_cast<QHelpEvent*>(event);
    const QModelIndex index = indexAt(help->pos());
    if (index.isValid() && cell_elided(index.row(), index.column())) {
      QToolTip::showText(help->globalPos(), index.data().toString(), viewport(), visualRect(index));
      return true;
    }
    QToolTip::hideText();
    event->ignore();
    return true;
  }
  return QTableWidget::viewportEvent(event);
}

}  // namespace tarn
