// A writer of the settings or the login list is killed at random moments, over and over: after
// every kill the file must parse and hold the contents before the interrupted write or after.
#include "platform/PreferencesDomain.h"
#include "platform/PropertyList.h"
#include "TestEnvironment.h"
#include "common/VTUtil.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QTest>
#include <QThread>

#include <csignal>

class TestCrashSafety : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void killedWriterLeavesOldOrNew_data()
    {
        QTest::addColumn<QString>("mode");
        QTest::newRow("defaults.plist") << "settings";
        QTest::newRow("login list") << "login";
    }

    void killedWriterLeavesOldOrNew()
    {
        QFETCH(QString, mode);
        const bool settings = mode == u"settings";
        const QString path = settings ? VTUtil::applicationSupportFolder() + QStringLiteral("/defaults.plist")
                                      : PreferencesDomain(QStringLiteral("loginwindow")).filePath();
        auto expected = [&](qint64 step) -> QVariant {
            if (settings) // the step's number goes with a setting that changes at every step: one write
                return QVariantMap{{QStringLiteral("firstRun"), false},
                                   {QStringLiteral("folderAliases"), QVariantList()},
                                   {QStringLiteral("step"), step},
                                   {QStringLiteral("visible"), step % 2 == 1}};
            return QVariantMap{
                {QStringLiteral("AutoLaunchedApplicationDictionary"),
                 QVariantList{QVariantMap{{QStringLiteral("Path"), QStringLiteral("/opt/step %1").arg(step)}}}}};
        };
        QVERIFY(QDir().mkpath(QFileInfo(path).path()));
        QVERIFY(PropertyList::writeFile(path, expected(0)));

        // VANTOR_KILLS=1000 for the long run.
        const int kills = std::max(qEnvironmentVariableIntValue("VANTOR_KILLS"), 100);
        qint64 step = 0;
        for (int kill = 0; kill < kills; ++kill) {
            QProcess writer;
            writer.setProcessChannelMode(QProcess::ForwardedErrorChannel);
            writer.start(QStringLiteral(VANTOR_RELIABILITY_WRITER), {mode, QString::number(step)});
            QVERIFY2(writer.waitForReadyRead(30000), "the writer did not start writing");
            // Anywhere from the first write on, at a random moment within some dozens of writes.
            QThread::usleep(QRandomGenerator::global()->bounded(20000));
            ::kill(pid_t(writer.processId()), SIGKILL);
            QVERIFY(writer.waitForFinished(10000));

            // The last step known done, and whether the next one had begun.
            qint64 done = step;
            bool begun = false;
            for (const QByteArray &line : writer.readAllStandardOutput().split('\n')) {
                if (line.startsWith("d "))
                    done = line.mid(2).toLongLong(), begun = false;
                else if (line.startsWith("w "))
                    begun = true;
            }
            const std::optional<QVariant> onDisk = PropertyList::readFile(path);
            QVERIFY2(onDisk, qPrintable(QStringLiteral("kill %1: the file does not parse").arg(kill)));
            step = *onDisk == expected(done) ? done : done + 1;
            QVERIFY2(*onDisk == expected(step) && (step == done || begun),
                     qPrintable(QStringLiteral("kill %1: the file holds neither step %2 nor %3")
                                    .arg(kill)
                                    .arg(done)
                                    .arg(done + 1)));
            // Now and then a third-party reader agrees.
            if (kill % 25 == 0)
                QVERIFY(!TestEnvironment::pythonPlist(path).startsWith(QLatin1String("ERROR")));
        }
        QVERIFY(step > 0);
    }

private:
    TestEnvironment m_env;
};

QTEST_GUILESS_MAIN(TestCrashSafety)
#include "tst_crashsafety.moc"
