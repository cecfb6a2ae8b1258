// The pacing rules alone, fed made-up samples of a 2-processor machine: no btrfs, no clock.
#include "helper/Pacer.h"

#include <QTest>

namespace {

// One window of a made-up machine: its length, the processors others' and the helper's own
// programs used, and the share of the time some task waited for a processor.
struct Window {
    qint64 ms;
    double others;
    double own;
    double stall;
};

// Feeds the windows one after another; the load after the last.
Pacer::Load run(Pacer &pacer, const QList<Window> &windows)
{
    Pacer::Sample sample; // ticks of 10 ms, as Linux counts them
    pacer.sample(sample);
    for (const Window &window : windows) {
        sample.ms += window.ms;
        sample.userTicks += quint64((window.others + window.own) * double(window.ms) / 10.0);
        sample.ownUserTicks += quint64(window.own * double(window.ms) / 10.0);
        sample.cpuStallUs += quint64(window.stall * double(window.ms) * 1000.0);
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
        const Window quiet{250, 0.0, 0.0, 0.0};
        QTest::newRow("starts sharing") << QList<Window>{} << Pacer::Load::Sharing;
        QTest::newRow("quiet, but not for long enough")
            << QList<Window>{quiet, quiet, quiet, quiet, quiet} << Pacer::Load::Sharing;
        QTest::newRow("quiet for long enough") << QList<Window>(6, quiet) << Pacer::Load::Quiet;
        QTest::newRow("the helper's own work is no one else's")
            << QList<Window>(6, Window{250, 0.05, 1.0, 0.0}) << Pacer::Load::Quiet;
        QTest::newRow("another program arrives")
            << QList<Window>(6, quiet) + QList<Window>{{250, 0.5, 0.0, 0.0}} << Pacer::Load::Sharing;
        QTest::newRow("a quiet moment starts the wait anew")
            << QList<Window>{quiet, quiet, quiet, {250, 0.5, 0.0, 0.0}, quiet, quiet, quiet, quiet}
            << Pacer::Load::Sharing;
        QTest::newRow("others fill the machine") << QList<Window>{{250, 1.9, 0.0, 0.0}} << Pacer::Load::Crowded;
        QTest::newRow("others held up by work no program shows")
            << QList<Window>(8, Window{250, 0.0, 0.0, 0.5}) << Pacer::Load::Sharing;
        QTest::newRow("stalls at full speed are the helper's own")
            << QList<Window>(6, quiet) + QList<Window>(4, Window{250, 0.0, 0.0, 0.9}) << Pacer::Load::Quiet;
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
        run(pacer, QList<Window>(6, Window{250, 0.0, 0.0, 0.0}));
        pacer.setSwitchedOn(switchedOn);
        pacer.setPower(onBattery, powerSaver);
        QCOMPARE(pacer.hold(), hold);
        QCOMPARE(pacer.pace().go, hold == Pacer::Hold::None);
        if (hold != Pacer::Hold::None)
            return;
        QCOMPARE(pacer.pace().restMs(30), 0);
        // Sharing: the kernel's share of one processor stays at a quarter, even for quick calls.
        run(pacer, {{250, 1.0, 0.0, 0.0}});
        QCOMPARE(pacer.pace().stepBytes, Pacer::kSharingStep);
        QCOMPARE(pacer.pace().restMs(3), 9);
        QCOMPARE(pacer.pace().restMs(0), 3);
        QVERIFY(pacer.isMachineBusy());
    }
};

QTEST_APPLESS_MAIN(TestPacer)
#include "tst_pacer.moc"
