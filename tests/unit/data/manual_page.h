#pragma once

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QString>
#include <QStringList>

/// What tests look for in a page of the manual.
class ManualPage
{
public:
    /// One paragraph with a tag, such as a key's.
    struct Entry
    {
        QStringList names; ///< the words of the tag: a key, or several that share the text
        QString text;
    };

    /// @param name file in the directory of the manual, for example "procwarden.8"
    explicit ManualPage(const QString &name)
    {
        QFile file(QDir(QStringLiteral(PROCWARDEN_MANUAL_DIR)).filePath(name));
        if (file.open(QIODevice::ReadOnly)) {
            m_source = QString::fromUtf8(file.readAll());
        }
    }

    /// All files of the manual that are pages, and not another name of one.
    static QStringList names()
    {
        const QDir directory(QStringLiteral(PROCWARDEN_MANUAL_DIR));
        QStringList result;
        for (const QString &name :
             directory.entryList({ QStringLiteral("*.[1-8]") }, QDir::Files, QDir::Name)) {
            if (ManualPage(name).aliasOf().isEmpty()) {
                result << name;
            }
        }
        return result;
    }

    /// The file that is shown in place of this one, as it is found from the manual's root; empty if it is a
    /// page.
    QString aliasOf() const
    {
        const QRegularExpression request(QStringLiteral("\\A\\.so (\\S+)\\n\\z"));
        return request.match(m_source).captured(1);
    }

    QString source() const { return QString(m_source).replace(QLatin1String("\\-"), QLatin1String("-")); }

    /// Words as they are read, without requests, fonts and line breaks.
    QString text() const { return plain(source()); }

    /// What follows a heading of either level, up to the next one.
    QString section(const QString &title) const
    {
        const QRegularExpression heading(
            QStringLiteral("^\\.S[HS] \"?%1\"?\\n").arg(QRegularExpression::escape(title)),
            QRegularExpression::MultilineOption | QRegularExpression::CaseInsensitiveOption);
        const QString all = source();
        const QRegularExpressionMatch found = heading.match(all);
        if (!found.hasMatch()) {
            return QString();
        }
        const int end = all.indexOf(QRegularExpression(QStringLiteral("\\n\\.S[HS] ")), found.capturedEnd());
        return all.mid(found.capturedEnd(), end < 0 ? -1 : end - found.capturedEnd());
    }

    /// The example of the page, with its line breaks.
    QByteArray example() const
    {
        const QString examples = section(QStringLiteral("EXAMPLES"));
        const QRegularExpression block(QStringLiteral("\\.nf\\n\\.RS\\n(.*)\\n\\.RE"),
                                       QRegularExpression::DotMatchesEverythingOption);
        return block.match(examples).captured(1).toUtf8() + '\n';
    }

    /// Paragraphs with a tag of a section, but none without one that comes after.
    QVector<Entry> entries(const QString &title) const
    {
        QVector<Entry> result;
        QStringList parts = section(title).split(QRegularExpression(QStringLiteral("(?:^|\\n)\\.TP\\n")));
        parts.removeFirst();
        for (const QString &part : qAsConst(parts)) {
            const QString tag = part.section(QLatin1Char('\n'), 0, 0);
            const QString paragraph = part.section(QLatin1Char('\n'), 1)
                                          .section(QRegularExpression(QStringLiteral("\\n\\.PP\\n")), 0, 0);
            result.append({ plain(tag).split(QRegularExpression(QStringLiteral(",? ")), Qt::SkipEmptyParts),
                            plain(paragraph) });
        }
        return result;
    }

private:
    static QString plain(QString roff)
    {
        // What alternates fonts joins its words, and quotation marks keep blanks.
        const QRegularExpression alternating(QStringLiteral("^\\.(?:BR|RB|IR|RI|BI|IB) (.*)$"),
                                             QRegularExpression::MultilineOption);
        const QRegularExpression word(QStringLiteral("\"([^\"]*)\"|(\\S+)"));
        for (auto match = alternating.match(roff); match.hasMatch(); match = alternating.match(roff)) {
            QString joined;
            for (auto words = word.globalMatch(match.captured(1)); words.hasNext();) {
                const QRegularExpressionMatch next = words.next();
                joined += next.captured(1) + next.captured(2);
            }
            roff.replace(match.capturedStart(), match.capturedLength(), joined);
        }
        roff.remove(QRegularExpression(QStringLiteral("^\\.\\\\\".*$|^\\.[A-Z]{1,2}\\b ?"),
                                       QRegularExpression::MultilineOption));
        roff.remove(QRegularExpression(QStringLiteral("\\\\(?:f[BIRP]|&)")));
        roff.replace(QLatin1String("\\(dq"), QLatin1String("\""))
            .replace(QLatin1String("\\(aq"), QLatin1String("'"));
        return roff.replace(QLatin1String("\\e"), QLatin1String("\\")).simplified();
    }

    QString m_source;
};
