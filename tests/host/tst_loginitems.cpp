#include "common/BDAlias.h"
#include "platform/PreferencesDomain.h"
#include "platform/PropertyList.h"
#include "TestEnvironment.h"

#include <QDir>
#include <QFileInfo>
#include <QTest>

using namespace Qt::StringLiterals;

// The login window of this system end to end: the host prepares a new user, the session's
// autostart runner (dex) starts the agent, the agent starts the applications.
class TestLoginItems : public QObject
{
    Q_OBJECT

private:
    TestEnvironment m_env;
    QString markers() const { return m_env.root() + u"/markers"_s; }

    // An application bundle whose program notes its pid and display platform on start.
    QString makeApp(const QString &name)
    {
        const QString app = m_env.root() + u"/apps/"_s + name + u".app"_s;
        const QString exe = app + u"/Contents/MacOS/"_s + name, marker = markers() + u'/' + name;
        TestEnvironment::writeFile(
            exe,
            u"#!/bin/sh\necho \"$$ ${QT_QPA_PLATFORM:-none}\" > '%1.tmp' && mv '%1.tmp' '%1'\n"_s.arg(marker).toUtf8());
        QFile::setPermissions(exe, QFile::Permissions(0x7555));
        PropertyList::writeFile(
            app + u"/Contents/Info.plist"_s,
            QVariantMap{{u"CFBundleExecutable"_s, name}, {u"CFBundleIdentifier"_s, u"test."_s + name}});
        return app;
    }

    QList<QByteArray> marker(const QString &name)
    {
        const QString path = markers() + u'/' + name;
        if (!QTest::qWaitFor([&] { return QFileInfo::exists(path); }, 10000))
            return {};
        return TestEnvironment::readFile(path).trimmed().split(' ');
    }

private Q_SLOTS:
    void newUserGetsAgentThatOpensTheList()
    {
        QVERIFY(QDir().mkpath(markers()));
        const QStringList arguments{u"--screenshot"_s, m_env.root() + u"/shot.png"_s};
        QCOMPARE(TestEnvironment::run(TestEnvironment::hostExecutable(), arguments).exitCode, 0);
        QVERIFY(QFileInfo::exists(m_env.configHome() + u"/autostart/vantor-login-items.desktop"_s));
        const QString listFile = PreferencesDomain(u"loginwindow"_s).filePath();
        QCOMPARE(TestEnvironment::pythonPlist(listFile), u"{'AutoLaunchedApplicationDictionary': []}"_s);
        QVERIFY(m_env.runAutostart());
        QTest::qWait(300);
        QCOMPARE(QDir(markers()).entryList(QDir::Files), QStringList());

        const QString first = makeApp(u"First"_s), moved = makeApp(u"Moved"_s), hidden = makeApp(u"Hidden"_s);
        const QByteArray movedAlias = BDAlias::aliasWithPath(moved)->aliasData();
        const QString movedNow = m_env.root() + u"/apps/elsewhere/Moved.app"_s;
        QDir().mkpath(QFileInfo(movedNow).path());
        QVERIFY(QDir().rename(moved, movedNow));
        const QVariantList list{
            QVariantMap{{u"Path"_s, first}, {u"Hide"_s, false}},
            QVariantMap{{u"Path"_s, moved}, {u"AliasData"_s, movedAlias}, {u"Hide"_s, false}},
            QVariantMap{{u"Path"_s, m_env.root() + u"/apps/Gone.app"_s}, {u"Hide"_s, false}},
            QVariantMap{{u"Path"_s, hidden}, {u"Hide"_s, true}},
        };
        QVERIFY(PropertyList::writeFile(listFile, QVariantMap{{u"AutoLaunchedApplicationDictionary"_s, list}}));

        QVERIFY(m_env.runAutostart());
        const QList<QByteArray> a = marker(u"First"_s), b = marker(u"Moved"_s), c = marker(u"Hidden"_s);
        QVERIFY(a.size() == 2 && b.size() == 2 && c.size() == 2);
        // Started one after another, so their process ids rise in list order.
        QVERIFY(a[0].toInt() < b[0].toInt());
        QVERIFY(b[0].toInt() < c[0].toInt());
        QCOMPARE(a[1], QByteArray("none"));
        QCOMPARE(c[1], QByteArray("offscreen"));
    }
};

QTEST_GUILESS_MAIN(TestLoginItems)
#include "tst_loginitems.moc"
