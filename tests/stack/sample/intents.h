#pragma once

#include <QDBusContext>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

#include <functional>

/// The sample application's side of intents: it handles them, in the way that it was told to, and invokes
/// them when it is asked to.
///
/// What it hears goes into the diary: `intent NAME JSON`, and for each path in "files" of the data, and for
/// "uri", `read PATH: first line`.
class SampleIntents : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kestrix.Procwarden.IntentHandler1")

public:
    /// @param behaviour
    ///        "echo": answers the data;
    ///        "error": with an error;
    ///        "silent": never;
    ///        "quit": ends instead;
    ///        "vanish": ends once it has its name;
    ///        "text": answers a string;
    ///        "files": answers the data and a file of its own, whose name stands at "file";
    ///        "write": writes a line into each file and answers the data;
    ///        "nested": answers with hints that nobody knows
    SampleIntents(const QString &behaviour, const QString &directory,
                  const std::function<void(const QString &)> &note, QObject *parent = nullptr);

    /// Owns @p name, if it is not empty, and exports the handler.
    bool start(const QString &name);

public slots:
    QVariantMap HandleIntent(const QString &intentName, const QVariantMap &data, QVariantMap &replyHints);

private:
    void look(const QVariantMap &data);
    void lookAt(const QString &text);

    const QString m_behaviour;
    const QString m_directory;
    const std::function<void(const QString &)> m_note;
};

/// Where tests have the sample application invoke an intent: object "/intents" of its usual name.
class SampleInvoker : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.example.SampleIntents1")

public:
    using QObject::QObject;

public slots:
    /// Opens the files, for reading, or for reading and writing, passes them on in the hints, and answers
    /// what the service answers: a JSON object as text, or `error NAME: MESSAGE`.
    QString Invoke(const QString &intentName, const QVariantMap &hints, const QVariantMap &data,
                   const QStringList &readFiles, const QStringList &writeFiles);
};
