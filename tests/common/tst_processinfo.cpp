#include "platform/ProcessInfo.h"

#include <QCoreApplication>
#include <QTest>
#include <QTimer>

#include <csignal>

// SIGTERM while sudden termination is disabled waits for the last holder to let go.
class TestProcessInfo : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void terminationWaitsForHolders_data()
    {
        QTest::addColumn<int>("holders");
        QTest::newRow("none") << 0;
        QTest::newRow("one") << 1;
        QTest::newRow("nested") << 2;
    }

    void terminationWaitsForHolders()
    {
        QFETCH(int, holders);
        ProcessInfo *info = ProcessInfo::processInfo();
        info->installTerminationHandler();
        for (int i = 0; i < holders; ++i)
            info->disableSuddenTermination();

        bool released = holders == 0;
        QObject scope; // timers of this row die with it
        QTimer::singleShot(0, &scope, [] { ::raise(SIGTERM); });
        QTimer::singleShot(200, &scope, [&] {
            for (int i = 0; i < holders; ++i) {
                QVERIFY(info->terminationPending());
                info->enableSuddenTermination();
            }
            released = true;
        });
        // Without the handler SIGTERM would end the test process here.
        QTimer::singleShot(5000, &scope, [] { QCoreApplication::exit(2); });
        QCOMPARE(QCoreApplication::exec(), 0);
        QVERIFY(released);
    }
};

QTEST_GUILESS_MAIN(TestProcessInfo)
#include "tst_processinfo.moc"
