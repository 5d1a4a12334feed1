#include "dialogs/HowToSaveDlg.h"

#include <QBoxLayout>
#include <QButtonGroup>
#include <QCheckBox>
#include <QPushButton>
#include <QRadioButton>

#include "dialogs/dialog_look.h"
#include "dialogs/prompt_label.h"

namespace tarn {

HowToSaveDlg::HowToSaveDlg(how_to_save_model& model, QWidget* parent)
    : QDialog(parent), model_(model) {
  make_question_window(this, false);
  setWindowTitle("Save As");
  model_.init();
  const dialog_units units(font());

  prompt_ = named(new prompt_label(QString::fromStdString(model_.prompt())), "prompt");
  prompt_->setFixedWidth(units.x(289));
  new_document_ = named(new QRadioButton("&Save New Document"), "save_new_document");
  relate_ = named(new QCheckBox("&Relate PDF to original"), "relate");
  new_version_ = named(new QRadioButton("&Save New Version"), "save_new_version");
  local_save_ = named(new QRadioButton("&Local Save"), "local_save");
  ok_ = named(new QPushButton("&OK"), "ok");
  cancel_ = named(new QPushButton("&Cancel"), "cancel");
  ok_->setDefault(true);
  for (QPushButton* button : {ok_, cancel_}) button->setMinimumWidth(units.x(50));
  auto* how = new QButtonGroup(this);
  for (QRadioButton* radio : {new_document_, new_version_, local_save_}) how->addButton(radio);

  auto* main = new QVBoxLayout(this);
  main->setContentsMargins(units.x(18), units.y(14), units.x(18), units.y(7));
  main->setSpacing(units.y(2));
  main->addWidget(prompt_);
  main->addSpacing(units.y(6));
  main->addWidget(new_document_);
  auto* related = new QHBoxLayout;
  related->setContentsMargins(indent_of_radio_text(new_document_), 0, 0, 0);
  related->addWidget(relate_);
  main->addLayout(related);
  main->addWidget(new_version_);
  main->addWidget(local_save_);
  main->addStretch(1);
  auto* buttons = new QHBoxLayout;
  buttons->addStretch(1);
  buttons->addWidget(ok_);
  buttons->addWidget(cancel_);
  main->addSpacing(units.y(8));
  main->addLayout(buttons);

  set_tab_order({new_document_, relate_, new_version_, local_save_, ok_, cancel_});

  const std::pair<QRadioButton*, how_to_save_choice> choices[] = {{new_document_, kHowNewDocument},
                                                                  {new_version_, kHowNewVersion},
                                                                  {local_save_, kHowLocalSave}};
  for (auto [radio, choice] : choices) {
    connect(radio, &QRadioButton::clicked, this, [this, choice = choice] {
      model_.choose(choice);
      show_state();
    });
  }
  connect(relate_, &QCheckBox::clicked, this, [this](bool checked) { model_.set_relate(checked); });
  connect(ok_, &QPushButton::clicked, this, &HowToSaveDlg::accept);
  connect(cancel_, &QPushButton::clicked, this, &HowToSaveDlg::reject);

  local_save_->setVisible(model_.local_save_shown());
  show_state();

  // A fixed frame, as wide as a prompt line of 289 units allows and as tall as the wrapped
  // prompt needs.
  main->activate();
  setFixedSize(main->sizeHint());
}

HowToSaveDlg::~HowToSaveDlg() { model_.store_settings(); }

void HowToSaveDlg::show_state() {
  switch (model_.checked()) {
    case kHowNewDocument:
      new_document_->setChecked(true);
      break;
    case kHowNewVersion:
      new_version_->setChecked(true);
      break;
    case kHowLocalSave:
      local_save_->setChecked(true);
      break;
    default:
      break;
  }
  relate_->setChecked(model_.relate_checked());
  relate_->setEnabled(model_.relate_enabled());
}

void HowToSaveDlg::accept() {
  answer_ = model_.accept();
  QDialog::accept();
}

void HowToSaveDlg::showEvent(QShowEvent* event) {
  QDialog::showEvent(event);
  bring_to_front(this);
}

}  // namespace tarn
