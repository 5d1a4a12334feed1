#include "dialogs/MergeSortDlg.h"

#include <QBoxLayout>
#include <QButtonGroup>
#include <QCheckBox>
#include <QCloseEvent>
#include <QGridLayout>
#include <QGroupBox>
#include <QLabel>
#include <QPushButton>
#include <QRadioButton>

#include "dialogs/dialog_look.h"
#include "dialogs/doc_table.h"
#include "log/trace.h"

namespace tarn {

MergeSortDlg::MergeSortDlg(merge_sort_model& model, QWidget* parent, frame_size_io size_io)
    : resizable_dialog(std::move(size_io), parent), model_(model) {
  setWindowTitle("Merge items to one PDF");
  model_.init();
  const dialog_units units(font());

  auto* question = new QLabel("What would you like to do with these files?");
  each_ = named(new QRadioButton("Create a PDF for &each input document"), "each_pdf");
  one_ = named(new QRadioButton("Combine files into &one PDF document"), "one_pdf");
  auto* rearrange = new QLabel("You can rearrange the files to the right order:");
  up_ = named(new QPushButton("&Up"), "up");
  down_ = named(new QPushButton("&Down"), "down");
  table_ = named(new doc_table, "files");
  group_ = named(new QGroupBox("How would you like to save the result?"), "save_group");
  save_new_document_ = named(new QRadioButton("&Save New Document"), "save_new_document");
  save_new_version_ = named(new QRadioButton("&Save New Version"), "save_new_version");
  relate_ = named(new QCheckBox("&Relate PDF to original"), "relate");
  ok_ = named(new QPushButton("OK"), "ok");
  cancel_ = named(new QPushButton("Cancel"), "cancel");
  ok_->setDefault(true);
  for (QPushButton* button : {up_, down_, ok_, cancel_}) button->setMinimumWidth(units.x(50));

  auto* mode = new QButtonGroup(this);
  mode->addButton(each_);
  mode->addButton(one_);
  auto* how = new QButtonGroup(this);
  how->addButton(save_new_document_);
  how->addButton(save_new_version_);

  auto* main = new QVBoxLayout(this);
  main->setContentsMargins(units.x(10), units.y(8), units.x(10), units.y(8));
  main->setSpacing(units.y(4));
  main->addWidget(question);
  auto* modes = new QVBoxLayout;
  modes->setContentsMargins(units.x(15), 0, 0, 0);
  modes->setSpacing(units.y(2));
  modes->addWidget(each_);
  modes->addWidget(one_);
  main->addLayout(modes);
  main->addSpacing(units.y(4));
  main->addWidget(rearrange);
  auto* moves = new QHBoxLayout;
  moves->addWidget(up_);
  moves->addWidget(down_);
  moves->addStretch(1);
  main->addLayout(moves);
  main->addWidget(table_, 1);
  main->addSpacing(units.y(4));

  auto* choices = new QGridLayout(group_);
  choices->addWidget(save_new_document_, 0, 0);
  choices->addWidget(save_new_version_, 0, 1);
  auto* related = new QHBoxLayout;
  related->setContentsMargins(indent_of_radio_text(save_new_document_), 0, 0, 0);
  related->addWidget(relate_);
  choices->addLayout(related, 1, 0, 1, 2);
  choices->setColumnStretch(0, 1);
  choices->setColumnStretch(1, 1);
  main->addWidget(group_);

  auto* buttons = new QHBoxLayout;
  buttons->addStretch(1);
  buttons->addWidget(ok_);
  buttons->addWidget(cancel_);
  main->addSpacing(units.y(4));
  main->addLayout(buttons);

  set_tab_order({each_, one_, up_, down_, table_, save_new_document_, save_new_version_, relate_,
                 ok_, cancel_});

  connect(one_, &QRadioButton::clicked, this, [this] {
    model_.choose_merge();
    show_state();
  });
  connect(each_, &QRadioButton::clicked, this, [this] {
    model_.choose_single();
    show_state();
  });
  connect(save_new_document_, &QRadioButton::clicked, this, [this] { model_.set_save_new(true); });
  connect(save_new_version_, &QRadioButton::clicked, this, [this] { model_.set_save_new(false); });
  connect(relate_, &QCheckBox::clicked, this,
          [this](bool checked) { model_.set_save_new_related(checked); });
  connect(up_, &QPushButton::clicked, this, [this] { move_selected(-1); });
  connect(down_, &QPushButton::clicked, this, [this] { move_selected(1); });
  table_->on_move = [this](int step) {
    if (model_.list_enabled()) move_selected(step);
  };
  connect(ok_, &QPushButton::clicked, this, &MergeSortDlg::accept);
  connect(cancel_, &QPushButton::clicked, this, &MergeSortDlg::reject);

  const auto& rows = model_.rows();
  table_->setRowCount(static_cast<int>(rows.size()));
  for (size_t i = 0; i < rows.size(); ++i) table_->show_row(static_cast<int>(i), rows[i]);
  group_->setVisible(model_.extended());
  show_state();

  open_at(units.size(350, 270));
}

void MergeSortDlg::show_state() {
  const merge_sort_choices& choices = model_.choices();
  (choices.merge_documents_ ? one_ : each_)->setChecked(true);
  (choices.save_new_ != 0 ? save_new_document_ : save_new_version_)->setChecked(true);
  relate_->setChecked(choices.save_new_related_);
  for (QWidget* widget :
       {static_cast<QWidget*>(up_), static_cast<QWidget*>(down_), static_cast<QWidget*>(table_)})
    widget->setEnabled(model_.list_enabled());
  group_->setEnabled(model_.save_group_enabled());
}

void MergeSortDlg::move_selected(int step) {
  const int from = table_->selected_row();
  const int to = step < 0 ? model_.move_up(from) : model_.move_down(from);
  if (to == from) return;
  table_->show_row(from, model_.rows()[from]);
  table_->show_row(to, model_.rows()[to]);
  table_->select_row(to);
}

void MergeSortDlg::accept() {
  answer_ = model_.accept();
  QDialog::accept();
}

void MergeSortDlg::closeEvent(QCloseEvent* event) {
  TARN_TRACE(kTraceProgress, "OnClose2()");
  TARN_TRACE(kTraceProgress, "OnClose1()");
  resizable_dialog::closeEvent(event);
  TARN_TRACE(kTraceProgress, "OnClose2()");
}

}  // namespace tarn
