// The merge-and-sort question: one PDF of all the documents or one each, their order, and
// how to save the result. A thin view of merge_sort_model; resizable, its size remembered.
#pragma once

#include "dialogs/dialog_keys.h"
#include "dialogs/merge_sort_model.h"
#include "dialogs/resizable_dialog.h"

class QCheckBox;
class QGroupBox;
class QPushButton;
class QRadioButton;

namespace tarn {

class doc_table;

class MergeSortDlg : public resizable_dialog {
  Q_OBJECT

 public:
  // `model` must outlive the dialog. The dialog runs model.init() at once, and model.accept()
  // on OK. Widgets are named for tests: each_pdf, one_pdf, up, down, files, save_group,
  // save_new_document, save_new_version, relate, ok, cancel.
  explicit MergeSortDlg(merge_sort_model& model, QWidget* parent = nullptr,
                        frame_size_io size_io = registry_frame_size(kDialogSubkey,
                                                                    kMergeDialogSizeValue));

  // Valid once exec() returned QDialog::Accepted.
  const merge_sort_answer& answer() const { return answer_; }

 public slots:
  void accept() override;

 protected:
  void closeEvent(QCloseEvent* event) override;

 private:
  void show_state();
  void move_selected(int step);

  merge_sort_model& model_;
  merge_sort_answer answer_;
  QRadioButton* each_ = nullptr;
  QRadioButton* one_ = nullptr;
  QPushButton* up_ = nullptr;
  QPushButton* down_ = nullptr;
  doc_table* table_ = nullptr;
  QGroupBox* group_ = nullptr;
  QRadioButton* save_new_document_ = nullptr;
  QRadioButton* save_new_version_ = nullptr;
  QCheckBox* relate_ = nullptr;
  QPushButton* ok_ = nullptr;
  QPushButton* cancel_ = nullptr;
};

}  // namespace tarn
