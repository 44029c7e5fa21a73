#include "check/json_file.h"

#include "check/file_content.h"
#include "check/json_lines.h"
#include "check/reader_log.h"
#include "check/spelling.h"

#include "Core/application_id.h"
#include "Core/json_path.h"
#include "Core/types.h"

#include <QFileInfo>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>

namespace Ctl::Check {

namespace {

const QLatin1String requiredParams("requiredParams");
const QLatin1String hintsKey("hints");

/// A JSON object in a file, with the lines of its members.
class JsonSubject
{
public:
    JsonSubject(const QString &path, const QString &consequence, Report &where)
        : report(where)
    {
        QByteArray content;
        if (!readFile(path, content, report)) {
            return;
        }
        QJsonParseError error {};
        const QJsonDocument document = QJsonDocument::fromJson(content, &error);
        if (document.isNull()) {
            report.add(Rule::Json, { lineAt(content, error.offset) },
                       QStringLiteral("no JSON, %1: %2").arg(error.errorString(), consequence));
            return;
        }
        m_isRead = true;
        m_isObject = document.isObject();
        m_object = document.object();
        readMembers(content);
    }

    [[nodiscard]] bool isRead() const { return m_isRead; }
    [[nodiscard]] bool isObject() const { return m_isObject; }
    [[nodiscard]] const QJsonObject &object() const { return m_object; }

    [[nodiscard]] Place place(const QString &parent, const QString &key) const
    {
        return { m_lines.value(qMakePair(parent, key)), parent, key };
    }

    /// Tells of members of the object under @p parent that nobody reads.
    void checkNames(const QString &parent, const QJsonObject &object, const QStringList &known,
                    Rule unknown) const
    {
        const QStringList keys = object.keys();
        for (const QString &key : keys) {
            if (known.contains(key)) {
                continue;
            }
            const QString near = closest(key, known);
            report.add(near.isEmpty() ? unknown : Rule::MisspeltKey, place(parent, key),
                       QStringLiteral("nothing reads \"%1\"%2").arg(key, didYouMean(near)));
        }
    }

    Report &report;

private:
    void readMembers(const QByteArray &content)
    {
        const QVector<JsonMember> members = jsonMembers(content);
        for (const JsonMember &member : members) {
            const auto name = qMakePair(member.parent, member.key);
            if (m_lines.contains(name)) {
                report.add(Rule::DuplicateKey, { member.line, member.parent, member.key },
                           QStringLiteral("\"%1\" stands there twice: the last one counts").arg(member.key));
            }
            m_lines.insert(name, member.line);
        }
    }

    bool m_isRead = false;
    bool m_isObject = false;
    QJsonObject m_object;
    QHash<QPair<QString, QString>, int> m_lines; // object and key -> line of the last one
};

enum class HintType { Places, Texts, Text, Boolean };

struct HintInfo
{
    const char *name;
    HintType type;
    const char *onlyOf; ///< the one intent that heeds it; null: any
    const char *notOf; ///< the one that does not; null: none
};

const QVector<HintInfo> &hintInfos()
{
    static const QVector<HintInfo> all = {
        { "mimeContent", HintType::Places, nullptr, nullptr },
        { "readFiles", HintType::Places, nullptr, nullptr },
        { "writeFiles", HintType::Places, nullptr, nullptr },
        { "refocusOnReturn", HintType::Boolean, nullptr, "OpenURI" },
        { "preferredHandler", HintType::Text, nullptr, nullptr },
        { "ignoreHosts", HintType::Texts, nullptr, nullptr },
        { "ignoreSchemes", HintType::Texts, nullptr, nullptr },
        { "showDialog", HintType::Boolean, "OpenURI", nullptr },
        { "suppressErrorDialog", HintType::Boolean, nullptr, nullptr },
    };
    return all;
}

QString typeText(HintType type)
{
    switch (type) {
    case HintType::Places:
        return QStringLiteral("a list of places");
    case HintType::Texts:
        return QStringLiteral("a list of texts");
    case HintType::Text:
        return QStringLiteral("a text");
    case HintType::Boolean:
        return QStringLiteral("true or false");
    }
    return QString();
}

bool isTexts(const QJsonValue &value)
{
    const QJsonArray array = value.toArray();
    return value.isArray() && std::all_of(array.begin(), array.end(), [](const QJsonValue &element) {
               return element.isString();
           });
}

bool isOfType(const QJsonValue &value, HintType type)
{
    switch (type) {
    case HintType::Places:
    case HintType::Texts:
        return isTexts(value);
    case HintType::Text:
        return value.isString();
    case HintType::Boolean:
        return value.isBool();
    }
    return false;
}

/// What the service makes of a value of another type: it converts as QVariant does.
QString takenAs(const QVariant &value, HintType type)
{
    switch (type) {
    case HintType::Places:
    case HintType::Texts: {
        const QStringList texts = value.toStringList();
        return texts.isEmpty() ? QStringLiteral("an empty list")
                               : QStringLiteral("the list \"%1\"").arg(texts.join(QStringLiteral("\", \"")));
    }
    case HintType::Text:
        return QStringLiteral("\"%1\"").arg(value.toString());
    case HintType::Boolean:
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    }
    return QString();
}

void checkPlaces(const JsonSubject &subject, const QString &hint, const QStringList &places)
{
    for (const QString &place : places) {
        const ReaderLog log;
        const QStringList messagesOfWalk = [&log, &place] {
            (void)Core::JsonPath::value(QJsonObject(), place);
            return log.messages();
        }();
        const bool isEmpty = QString(place).remove(QLatin1Char('.')).isEmpty();
        if (!messagesOfWalk.isEmpty() || isEmpty) {
            subject.report.add(Rule::JsonPath, subject.place(hintsKey, hint),
                               QStringLiteral("\"%1\" names no place in the request data").arg(place));
        }
    }
}

void checkHint(const JsonSubject &subject, const HintInfo &info, const QString &intent)
{
    const QString name = QLatin1String(info.name);
    const QJsonObject hints = subject.object().value(hintsKey).toObject();
    const QJsonValue value = hints.value(name);
    if (value.isUndefined()) {
        return;
    }
    const Place place = subject.place(hintsKey, name);
    const ReaderLog log; // of a conversion that fails
    const QVariant variant = Core::Types::jsonObjectToVariantMap(hints).value(name);
    if (!isOfType(value, info.type)) {
        subject.report.add(Rule::Hint, place,
                           QStringLiteral("\"%1\" should be %2: it counts as %3")
                               .arg(name, typeText(info.type), takenAs(variant, info.type)));
    }
    if (info.type == HintType::Places) {
        checkPlaces(subject, name, variant.toStringList());
    }
    if ((info.onlyOf && intent != QLatin1String(info.onlyOf))
        || (info.notOf && intent == QLatin1String(info.notOf))) {
        subject.report.add(Rule::Hint, place,
                           info.onlyOf
                               ? QStringLiteral("\"%1\" is for %2 only").arg(name, QLatin1String(info.onlyOf))
                               : QStringLiteral("\"%1\" does nothing with %2").arg(name, intent));
    }
}

void checkHints(const JsonSubject &subject, const QString &intent)
{
    const QJsonValue value = subject.object().value(hintsKey);
    if (!value.isUndefined() && !value.isObject()) {
        subject.report.add(Rule::JsonType, subject.place(QString(), hintsKey),
                           QStringLiteral("\"hints\" should be an object: it counts as none"));
        return;
    }
    const QJsonObject hints = value.toObject();
    for (const HintInfo &info : hintInfos()) {
        checkHint(subject, info, intent);
    }
    const QStringList descriptors { QStringLiteral("readFds"), QStringLiteral("writeFds") };
    for (const QString &name : descriptors) {
        if (hints.contains(name)) {
            subject.report.add(
                Rule::Hint, subject.place(hintsKey, name),
                QStringLiteral("\"%1\" are open files of the caller, which this replaces: none are "
                               "passed on")
                    .arg(name));
        }
    }
    if (hints.contains(QStringLiteral("startDBus"))) {
        subject.report.add(Rule::Hint, subject.place(hintsKey, QStringLiteral("startDBus")),
                           QStringLiteral("\"startDBus\" is for Start only, which no file defines"));
    }
    subject.checkNames(hintsKey, hints,
                       intentHints() + descriptors + QStringList(QStringLiteral("startDBus")),
                       Rule::UnknownHint);
}

void checkRequiredParams(const JsonSubject &subject)
{
    const QJsonValue value = subject.object().value(requiredParams);
    const Place place = subject.place(QString(), requiredParams);
    if (!value.isUndefined() && !value.isArray()) {
        subject.report.add(
            Rule::JsonType, place,
            QStringLiteral("\"requiredParams\" should be a list of texts: it counts as empty"));
    } else if (value.isArray() && !isTexts(value)) {
        subject.report.add(Rule::RequiredParams, place,
                           QStringLiteral("\"requiredParams\" holds something else than texts: the intent is "
                                          "unknown"));
    }
}

} // namespace

QStringList intentHints()
{
    QStringList names;
    for (const HintInfo &info : hintInfos()) {
        names.append(QLatin1String(info.name));
    }
    return names;
}

void checkIntentDefinition(const QString &path, Report &report)
{
    const QString fileName = QFileInfo(path).fileName();
    const QString suffix = QStringLiteral(".intent");
    const QString intent = fileName.endsWith(suffix) ? fileName.chopped(suffix.size()) : QString();
    const JsonSubject subject(path, QStringLiteral("the intent is unknown"), report);
    if (intent.isEmpty()) {
        report.add(Rule::FileName, QStringLiteral("only files NAME.intent are looked for"));
    } else if (intent == QLatin1String("Start")) {
        report.add(Rule::IntentName, QStringLiteral("Start is built in: no file for it is read"));
    }
    if (!subject.isRead()) {
        return;
    }
    if (!subject.isObject()) {
        report.add(Rule::JsonType, { 1 },
                   QStringLiteral("the file should hold an object: it defines an intent without anything"));
        return;
    }
    subject.checkNames(QString(), subject.object(), { requiredParams, hintsKey }, Rule::UnknownKey);
    checkRequiredParams(subject);
    checkHints(subject, intent);
}

void checkManifest(const QString &path, Report &report)
{
    const QString key = QStringLiteral("keepMediaActiveInBackground");
    const QString consequence = QStringLiteral("the application counts as one without a package");
    const JsonSubject subject(path, consequence, report);
    if (!subject.isRead()) {
        return;
    }
    if (!subject.isObject()) {
        report.add(Rule::JsonType, { 1 }, QStringLiteral("the file should hold an object: ") + consequence);
        return;
    }
    const QJsonValue value = subject.object().value(key);
    if (!value.isUndefined() && !value.isBool()) {
        report.add(Rule::JsonType, subject.place(QString(), key),
                   QStringLiteral("\"%1\" should be true or false: it counts as false").arg(key));
    }
    const QStringList keys = subject.object().keys();
    for (const QString &other : keys) {
        if (!closest(other, { key }).isEmpty()) {
            report.add(Rule::MisspeltKey, subject.place(QString(), other),
                       QStringLiteral("nothing reads \"%1\"%2").arg(other, didYouMean(key)));
        }
    }
}

} // namespace Ctl::Check
