// The help window's zoom and font: the zoom steps and menu, scaling the text's own sizes and pictures
// from their unzoomed values, and the help font shared with the other applications.
#include "help/window/KSVellumaHelpWC.h"

#include "help/window/KSVellumaHelpKeys.h"
#include "keelson/KSUserDefaults.h"
#include "ui_KSVellumaHelp.h"

#include <QComboBox>
#include <QFontDialog>
#include <QFontInfo>
#include <QSettings>
#include <QTextBlock>
#include <QTextCursor>
#include <QTextDocument>

#include <cmath>

namespace {

// Format properties holding a size before zooming, so that zoom steps never accumulate rounding.
constexpr int kBaseSizeProperty = QTextFormat::UserProperty + 1;
constexpr int kBaseWidthProperty = QTextFormat::UserProperty + 2;
constexpr int kBaseHeightProperty = QTextFormat::UserProperty + 3;
std::function<bool(QFont *)> g_nextFontAnswer;

} // namespace

void KSVellumaHelpWC::setNextFontAnswer(std::function<bool(QFont *)> answer)
{
    g_nextFontAnswer = std::move(answer);
}

void KSVellumaHelpWC::changeZoom(int percent)
{
    performZoom(percent / 100.0);
}

void KSVellumaHelpWC::zoomIn()
{
    performZoom(KSHelpZoomIn(m_zoom));
}

void KSVellumaHelpWC::zoomOut()
{
    performZoom(KSHelpZoomOut(m_zoom));
}

void KSVellumaHelpWC::performZoom(double factor)
{
    if (factor <= 0)
        factor = 1.0;
    const quint32 shown = firstVisibleCp();
    const quint32 start = selectionStart(), end = selectionEnd();
    // The text changes away from the view and without a page size, so that nothing is laid out
    // or redrawn until all changes are made; then the view lays it out once.
    QTextDocument placeholder;
    ui->scrollView->setDocument(&placeholder);
    QTextDocument *document = m_content->text.get();
    const QSizeF pageSize = document->pageSize();
    document->setPageSize(QSizeF());
    applyZoom(factor);
    document->setPageSize(pageSize);
    ui->scrollView->setDocument(document);
    setSelection(start, end);
    scrollToCp(shown);
    updateZoomTool(factor);
}

void KSVellumaHelpWC::updateZoomTool(double factor)
{
    const int percent = int(std::lround(factor * 100));
    if (m_filePath.isEmpty()) // a named file's window leaves the settings alone
        SetSettingsValue(UserDefaultsPath(), kZoomKey, percent);
    const int index = m_zoomMenu->findData(percent);
    m_zoomMenu->setCurrentIndex(index);
    if (index < 0)
        m_zoomMenu->setEditText(QStringLiteral("%1%").arg(percent));
}

void KSVellumaHelpWC::applyZoom(double factor)
{
    m_zoom = factor;
    QTextDocument *document = m_content->text.get();
    QFont font = m_font;
    font.setPointSizeF(m_font.pointSizeF() * factor);
    if (document->defaultFont() != font)
        document->setDefaultFont(font);
    // Sizes given in the text itself scale from their unzoomed values. Only what changes is
    // touched, so opening at the size last used costs no layout.
    QTextCursor cursor(document);
    cursor.beginEditBlock(); // one change for the layout, however many fragments change
    for (QTextBlock block = document->begin(); block.isValid(); block = block.next()) {
        for (auto it = block.begin(); !it.atEnd(); ++it) {
            const QTextFragment fragment = it.fragment();
            QTextCharFormat format = fragment.charFormat();
            bool changed = false;
            if (format.hasProperty(kRelativeSizeProperty)) {
                // A size of the document's own, in proportion to the help font.
                const double size = m_font.pointSizeF() * format.doubleProperty(kRelativeSizeProperty) * factor;
                changed = size != format.fontPointSize();
                format.setFontPointSize(size);
            } else if (format.hasProperty(kBaseSizeProperty) || format.hasProperty(QTextFormat::FontPointSize)) {
                if (!format.hasProperty(kBaseSizeProperty))
                    format.setProperty(kBaseSizeProperty, format.fontPointSize());
                const double size = format.doubleProperty(kBaseSizeProperty) * factor;
                changed = size != format.fontPointSize();
                format.setFontPointSize(size);
            }
            if (format.isImageFormat()) {
                QTextImageFormat image = format.toImageFormat();
                if (!image.hasProperty(kBaseWidthProperty)) {
                    image.setProperty(kBaseWidthProperty, image.width());
                    image.setProperty(kBaseHeightProperty, image.height());
                }
                const double width = image.doubleProperty(kBaseWidthProperty) * factor;
                const double height = image.doubleProperty(kBaseHeightProperty) * factor;
                changed = changed || width != image.width() || height != image.height();
                image.setWidth(width);
                image.setHeight(height);
                format = image;
            }
            if (changed) {
                cursor.setPosition(fragment.position());
                cursor.setPosition(fragment.position() + fragment.length(), QTextCursor::KeepAnchor);
                cursor.setCharFormat(format);
            }
        }
    }
    cursor.endEditBlock();
}

void KSVellumaHelpWC::applyHelpFont(const QFont &font)
{
    if (font == m_font)
        return;
    m_font = font;
    applyZoom(m_zoom);
}

void KSVellumaHelpWC::changeFont(const QFont *chosen)
{
    QFont font;
    if (chosen) {
        font = *chosen;
    } else {
        const QString descriptor = OpenSettingsFile(SharedDefaultsPath())->value(kHelpFontKey).toString();
        if (descriptor.isEmpty() || !font.fromString(descriptor))
            return;
    }
    if (font == m_font)
        return;
    const quint32 shown = firstVisibleCp();
    applyHelpFont(font);
    scrollToCp(shown);
    if (chosen)
        SetSettingsValue(SharedDefaultsPath(), kHelpFontKey, font.toString());
}

void KSVellumaHelpWC::showFonts()
{
    // The dialog opens on the font on screen: the family the help font resolves to.
    QFont font = m_font;
    font.setFamily(QFontInfo(m_font).family());
    bool ok = false;
    if (g_nextFontAnswer) {
        ok = std::exchange(g_nextFontAnswer, {})(&font);
    } else {
        font = QFontDialog::getFont(&ok, font, this, QStringLiteral("Help Font"));
    }
    if (ok)
        changeFont(&font);
}
