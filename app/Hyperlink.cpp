#include "Hyperlink.h"

#include <QLabel>
#include <QTextDocument>
#include <QTextDocumentFragment>

namespace dravinel {

namespace {

QString linkMarkup(const QString& text, const QString& target)
{
    if (text.isEmpty())
        return QString();
    // The colour and underline are given on the anchor itself so that no palette overrides them.
    return QStringLiteral("<a href=\"%1\" style=\"color:#0000ff; text-decoration:underline;\">"
                          "%2</a>")
        .arg(target.toHtmlEscaped(), text.toHtmlEscaped());
}

} // namespace

QString hyperlinkFromString(const QString& text, const QUrl& url)
{
    return linkMarkup(text, url.toString());
}

void applyHyperlink(QLabel* label, const QUrl& url)
{
    // A label that already carries markup is linked by its visible text.
    const QString text = Qt::mightBeRichText(label->text())
                             ? QTextDocumentFragment::fromHtml(label->text()).toPlainText()
                             : label->text();
    label->setTextFormat(Qt::RichText);
    label->setTextInteractionFlags(Qt::TextBrowserInteraction);
    // The owner opens the link (linkActivated), so that it can say so when no browser can.
    label->setOpenExternalLinks(false);
    label->setText(linkMarkup(text, url.toString(QUrl::FullyEncoded)));
}

} // namespace dravinel
