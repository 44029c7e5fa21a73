#include "Core/block_list.h"

#include <QTest>

using Core::ApplicationId;
using Core::BlockList;

class tst_BlockList : public QObject
{
    Q_OBJECT

private slots:
    void knowsOnlyWhatWasAdded();
    void oneRemovalUndoesSeveralAdditions();
    void removingWhatIsNotThereChangesNothing();
};

void tst_BlockList::knowsOnlyWhatWasAdded()
{
    BlockList list;
    list.add(ApplicationId(QStringLiteral("org.example.App")));

    QVERIFY(list.contains(ApplicationId(QStringLiteral("org.example.App"))));
    QVERIFY(!list.contains(ApplicationId(QStringLiteral("org.example.App2"))));
    QVERIFY(!list.contains(ApplicationId(QString())));
}

void tst_BlockList::oneRemovalUndoesSeveralAdditions()
{
    const ApplicationId id(QStringLiteral("org.example.App"));
    BlockList list;
    list.add(id);
    list.add(id);
    list.remove(id);

    QVERIFY(!list.contains(id));
}

void tst_BlockList::removingWhatIsNotThereChangesNothing()
{
    const ApplicationId id(QStringLiteral("org.example.App"));
    BlockList list;
    list.add(id);
    list.remove(ApplicationId(QStringLiteral("org.example.Other")));

    QVERIFY(list.contains(id));
}

QTEST_APPLESS_MAIN(tst_BlockList)
#include "tst_block_list.moc"
