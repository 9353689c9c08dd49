#pragma once

#include <QString>
#include <QUrl>

// Clickable link texts: blue, single underline; the label's owner opens them (linkActivated).

class QLabel;

namespace dravinel {

// A rich text that shows text as a link to url (its full address as the link target).
QString hyperlinkFromString(const QString& text, const QUrl& url);

// Turns the label's current text into a link to url in place; the label keeps its font and text,
// and an empty label stays empty.
void applyHyperlink(QLabel* label, const QUrl& url);

} // namespace dravinel
