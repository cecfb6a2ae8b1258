// The pacing rules alone, fed made-up samples of a 2-processor machine: no btrfs, no clock.
#include "helper/Pacer.h"

#include <QTest>

namespace {

// One window of a made-up machine: its length, and the processors others' and the helper's
// own programs used.
struct Window {
    qint64 ms;
    double others;
    double own;
};

// Feeds the windows one after another; the load after the last.
Pacer::Load run(Pacer &pacer, const QList<Window> &windows)
{
    Pacer::Sample sample; // ticks of 10 ms, as Linux counts them
    pacer.sample(sample);
    for (const Window &window : windows) {
        sample.ms += window.ms;
        sample.userTicks += quint64((window.others + window.own) * double(window.ms) / 10.0 + 0.5);
        sample.ownUserTicks += quint64(window.own * double(window.ms) / 10.0 + 0.5);
        pacer.sample(sample);
    }
    return pacer.load();
}

} // namespace

Q_DECLARE_METATYPE(Window)

class TestPacer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void load_data()
    {
        QTest::addColumn<QList<Window>>("windows");
        QTest::addColumn<Pacer::Load>("load");
        const Window quiet{100, 0.0, 0.0}, busy{100, 1.0, 0.0};
        QTest::newRow("starts sharing") << QList<Window>{} << Pacer::Load::Sharing;
        QTest::newRow("quiet for a moment") << QList<Window>{{50, 0.0, 0.0}} << Pacer::Load::Quiet;
        QTest::newRow("the helper's own work is no one else's")
            << QList<Window>(3, Window{100, 0.05, 1.5}) << Pacer::Load::Quiet;
        QTest::newRow("another program arrives") << QList<Window>{quiet, quiet, busy} << Pacer::Load::Sharing;
        QTest::newRow("a short blip of others at full speed")
            << QList<Window>{quiet, quiet, quiet, {100, 0.6, 0.0}} << Pacer::Load::Quiet;
        QTest::newRow("quiet again, but not for the whole window")
            << QList<Window>{busy, quiet, quiet} << Pacer::Load::Sharing;
        QTest::newRow("quiet again for the whole window")
            << QList<Window>{busy, quiet, quiet, quiet} << Pacer::Load::Quiet;
        QTest::newRow("others fill the machine") << QList<Window>{{100, 1.9, 0.0}} << Pacer::Load::Crowded;
    }

    void load()
    {
        QFETCH(QList<Window>, windows);
        QFETCH(Pacer::Load, load);
        Pacer pacer(2);
        QCOMPARE(run(pacer, windows), load);
        // Work after a pause starts by sharing again, whatever came before.
        pacer.restart();
        QCOMPARE(pacer.load(), Pacer::Load::Sharing);
        QVERIFY(!pacer.isMachineBusy());
    }

    void pace_data()
    {
        QTest::addColumn<bool>("switchedOn");
        QTest::addColumn<bool>("onBattery");
        QTest::addColumn<bool>("powerSaver");
        QTest::addColumn<Pacer::Hold>("hold");
        QTest::newRow("working") << true << false << false << Pacer::Hold::None;
        QTest::newRow("switched off, on battery too") << false << true << false << Pacer::Hold::SwitchedOff;
        QTest::newRow("on battery") << true << true << true << Pacer::Hold::Battery;
        QTest::newRow("power saver") << true << false << true << Pacer::Hold::PowerSaver;
    }

    void pace()
    {
        QFETCH(bool, switchedOn);
        QFETCH(bool, onBattery);
        QFETCH(bool, powerSaver);
        QFETCH(Pacer::Hold, hold);
        Pacer pacer(2);
        run(pacer, {{100, 0.0, 0.0}});
        pacer.setSwitchedOn(switchedOn);
        pacer.setPower(onBattery, powerSaver);
        QCOMPARE(pacer.hold(), hold);
        QCOMPARE(pacer.pace().go, hold == Pacer::Hold::None);
        if (hold != Pacer::Hold::None)
            return;
        QCOMPARE(pacer.pace().restMs(30), 0);
        // Sharing: the kernel's share of one processor stays at 3 %, even for quick calls.
        pacer.restart();
        run(pacer, {{100, 1.0, 0.0}});
        QCOMPARE(pacer.pace().stepBytes, Pacer::kSharingStep);
        QCOMPARE(pacer.pace().restMs(3), 97);
        QCOMPARE(pacer.pace().restMs(0), 32);
        QVERIFY(pacer.isMachineBusy());
    }
};

QTEST_APPLESS_MAIN(TestPacer)
#include "tst_pacer.moc"
