#include "dialogs/prompt_label.h"

#include <QPainter>
#include <QTextLayout>
#include <QTextOption>

namespace tarn {

prompt_label::prompt_label(const QString& text, QWidget* parent) : QLabel(text, parent) {
  setWordWrap(true);
  setTextFormat(Qt::PlainText);
  QSizePolicy policy(QSizePolicy::Preferred, QSizePolicy::Preferred);
  policy.setHeightForWidth(true);
  setSizePolicy(policy);
}

prompt_label::laid_out prompt_label::lay_out(int width) const {
  laid_out result;
  const QFontMetrics metrics(font());
  width = std::max(width, metrics.averageCharWidth() * 4);
  QString flow = text();
  flow.replace(QLatin1Char('\n'), QChar::LineSeparator);
  QTextLayout layout(flow, font());
  QTextOption option;
  option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
  layout.setTextOption(option);
  layout.beginLayout();
  for (QTextLine line = layout.createLine(); line.isValid(); line = layout.createLine()) {
    line.setLineWidth(width);
    if (result.lines.size() == kMaxLines - 1) {
      QString rest = flow.mid(line.textStart());
      rest.replace(QChar::LineSeparator, QLatin1Char(' '));
      const QString shown = metrics.elidedText(rest, Qt::ElideMiddle, width);
      result.elided = shown != rest;
      result.lines << shown;
      break;
    }
    result.lines
        << flow.mid(line.textStart(), line.textLength()).remove(QChar::LineSeparator).trimmed();
  }
  layout.endLayout();
  return result;
}

int prompt_label::heightForWidth(int width) const {
  const QMargins margins = contentsMargins();
  const int lines =
      static_cast<int>(lay_out(width - margins.left() - margins.right()).lines.size());
  return std::max(lines, 1) * fontMetrics().lineSpacing() + margins.top() + margins.bottom();
}

QSize prompt_label::sizeHint() const {
  const int width = minimumWidth() > 0 ? minimumWidth() : fontMetrics().averageCharWidth() * 60;
  return {width, heightForWidth(width)};
}

QSize prompt_label::minimumSizeHint() const { return sizeHint(); }

void prompt_label::resizeEvent(QResizeEvent* event) {
  QLabel::resizeEvent(event);
  const QMargins margins = contentsMargins();
  const bool elided = lay_out(width() - margins.left() - margins.right()).elided;
  setToolTip(elided ? text() : QString());
}

void prompt_label::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setPen(
      palette().color(isEnabled() ? QPalette::Active : QPalette::Disabled, foregroundRole()));
  const QRect area = contentsRect();
  const int spacing = fontMetrics().lineSpacing();
  int y = area.top();
  for (const QString& line : lay_out(area.width()).lines) {
    painter.drawText(QRect(area.left(), y, area.width(), spacing),
                     Qt::AlignLeft | Qt::AlignVCenter | Qt::TextSingleLine, line);
    y += spacing;
  }
}

}  // namespace tarn
