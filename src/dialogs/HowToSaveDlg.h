// The how-to-save question after a single document became a PDF: a new document, perhaps
// related to its source, or a new version. A thin view of how_to_save_model, of fixed size;
// the prompt wraps, so the dialog grows downwards for long names.
#pragma once

#include <QDialog>

#include "dialogs/how_to_save_model.h"

class QCheckBox;
class QPushButton;
class QRadioButton;

namespace tarn {

class prompt_label;

class HowToSaveDlg : public QDialog {
  Q_OBJECT

 public:
  // `model` must outlive the dialog. The dialog runs model.init() at once, model.accept() on
  // OK. Widgets are named for tests: prompt, save_new_document, relate, save_new_version,
  // local_save, ok, cancel.
  explicit HowToSaveDlg(how_to_save_model& model, QWidget* parent = nullptr);
  // Writes the choices back, on OK and on Cancel alike.
  ~HowToSaveDlg() override;

  // Valid once exec() returned QDialog::Accepted.
  const how_to_save_answer& answer() const { return answer_; }

 public slots:
  void accept() override;

 protected:
  void showEvent(QShowEvent* event) override;

 private:
  void show_state();

  how_to_save_model& model_;
  how_to_save_answer answer_;
  prompt_label* prompt_ = nullptr;
  QRadioButton* new_document_ = nullptr;
  QCheckBox* relate_ = nullptr;
  QRadioButton* new_version_ = nullptr;
  QRadioButton* local_save_ = nullptr;
  QPushButton* ok_ = nullptr;
  QPushButton* cancel_ = nullptr;
};

}  // namespace tarn
