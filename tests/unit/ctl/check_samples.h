#pragma once

#include "check/finding.h"

#include <QByteArray>
#include <QList>
#include <QRandomGenerator>

#include <algorithm>

/// Whether there is one of the rule, on the key if one is given.
inline bool has(const QVector<Ctl::Check::Finding> &findings, Ctl::Check::Rule rule, const QString &key = {})
{
    return std::any_of(findings.cbegin(), findings.cend(), [&](const Ctl::Check::Finding &finding) {
        return finding.rule == rule && (key.isEmpty() || finding.place.key == key);
    });
}

/// A file made of pieces that mean something, in any order; the same ones at each run.
inline QByteArray composed(QRandomGenerator &random, const QList<QByteArray> &pieces)
{
    QByteArray content;
    const int count = random.bounded(14);
    for (int i = 0; i < count; ++i) {
        content += pieces.at(random.bounded(pieces.size()));
    }
    return content;
}
