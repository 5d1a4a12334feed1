// A label whose text wraps at word boundaries, and inside a word that is longer than a line,
// so that a long document name never runs out of the dialog. Past kMaxLines the rest is
// elided and the whole text becomes the tooltip. The text itself stays as given.
#pragma once

#include <QLabel>
#include <QString>

namespace tarn {

class prompt_label : public QLabel {
  Q_OBJECT

 public:
  static constexpr int kMaxLines = 12;

  explicit prompt_label(const QString& text, QWidget* parent = nullptr);

  bool hasHeightForWidth() const override { return true; }
  int heightForWidth(int width) const override;
  QSize sizeHint() const override;
  QSize minimumSizeHint() const override;

 protected:
  void paintEvent(QPaintEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;

 private:
  struct laid_out {
    QStringList lines;
    bool elided = false;
  };
  laid_out lay_out(int width) const;
};

}  // namespace tarn
