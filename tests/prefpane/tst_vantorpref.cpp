// The pane driven as the host drives it, on a real session bus: the settings tab, the
// notifications it answers and the bubbles of its icon. Start-up posts are the host suite's.

#include "FakeWorkspace.h"
#include "NotificationRecorder.h"
#include "PaneFixture.h"
#include "RecordingAlerts.h"
#include "common/Notifications.h"
#include "common/VTDefaultsController.h"
#include "platform/DistributedNotificationCenter.h"
#include "prefpane/BubbleLayer.h"

#include <QCheckBox>
#include <QLabel>
#include <QPushButton>
#include <QTabWidget>
#include <QTest>

#include <optional>

using namespace Qt::StringLiterals;

class TestVantorPref : public QObject
{
    Q_OBJECT

private:
    VantorPref &pane() { return m_ui->pane; }
    VTDefaultsController *store() const { return VTDefaultsController::sharedDefaultsController(); }
    template <typename T>
    T *child(const char *name)
    {
        return pane().mainView()->findChild<T *>(QLatin1String(name));
    }
    QList<BubbleLayer *> bubbles() { return pane().iconLayer()->findChildren<BubbleLayer *>(); }
    static QAbstractAnimation *fade(BubbleLayer *bubble) { return bubble->animationForKey(u"opacity"_s); }
    // A point of the layer in the icon's y-up coordinates.
    QPointF iconPoint(const QPointF &p) { return {p.x(), pane().iconLayer()->height() - p.y()}; }

    TestEnvironment m_env;
    RecordingAlerts m_alerts;
    FakeWorkspace m_workspace;
    std::optional<PaneFixture> m_ui;

private Q_SLOTS:
    void initTestCase()
    {
        // Stored before the pane loads: the boxes must start from the file, not from their defaults.
        VTDefaultsController::create();
        store()->setVisible(false);
        m_ui.emplace();
        pane().mainViewDidLoad();
        QCOMPARE(pane().versionNumberTextField->text(), u"1.0.0"_s);
    }

    void init() { pane().tabView->setCurrentWidget(child<QWidget>("settingsTab")); }

    void visibleChangePostsOnce()
    {
        NotificationRecorder recorder;
        store()->setVisible(!store()->visible());
        store()->setHelperActive(store()->helperActive());
        store()->setAutorunAtLogin(store()->autorunAtLogin());
        // Observed only in the pane's own context.
        pane().observeValueForKeyPath(u"visible"_s, store(), {}, nullptr);
        pane().observeValueForKeyPath(u"helperActive"_s, store(), {}, &pane());
        recorder.settle();
        QCOMPARE(recorder.names(), QStringList{QLatin1String(Notifications::Visible)});
        store()->setVisible(!store()->visible());
    }

    void showHistoryBringsFirstTab()
    {
        QVERIFY(pane().tabView->currentIndex() != 0);
        DistributedNotificationCenter::defaultCenter()->postNotificationName(u"showHistory"_s);
        QTRY_COMPARE(pane().tabView->currentIndex(), 0);
    }

    // The file's keys and the notifications of the store are the store suite's.
    void boxesGoThroughTheStore_data()
    {
        QTest::addColumn<QString>("box");
        QTest::addColumn<QString>("property");
        QTest::addColumn<bool>("stored"); // as the file was before the pane loaded
        QTest::addColumn<QString>("notification"); // posted when the box is switched on and off
        QTest::newRow("visible") << "visibleCheckBox"
                                 << "visible" << false << Notifications::Visible;
        QTest::newRow("checkUpdates") << "checkUpdatesCheckBox"
                                      << "checkForUpdates" << true << QString();
        QTest::newRow("runAtLogin") << "runAtLoginCheckBox"
                                    << "autorunAtLogin" << true << QString();
    }
    void boxesGoThroughTheStore()
    {
        QFETCH(QString, box);
        QFETCH(QString, property);
        QFETCH(bool, stored);
        QFETCH(QString, notification);
        QCheckBox *checkBox = child<QCheckBox>(qPrintable(box));
        QCOMPARE(store()->property(qPrintable(property)).toBool(), stored); // this function leaves it so
        QCOMPARE(checkBox->isChecked(), stored);
        for (const bool on : {!stored, stored}) {
            NotificationRecorder recorder;
            // On the box itself: a wide check box takes clicks only on its box and label.
            QTest::mouseClick(checkBox, Qt::LeftButton, {}, QPoint(8, checkBox->height() / 2));
            QCOMPARE(checkBox->isChecked(), on);
            QCOMPARE(store()->property(qPrintable(property)).toBool(), on);
            recorder.settle();
            if (!notification.isEmpty())
                QCOMPARE(recorder.count(notification), 1);
        }
        // A change made elsewhere shows in the box.
        for (const bool value : {!stored, stored}) {
            QVERIFY(store()->setProperty(qPrintable(property), value));
            QCOMPARE(checkBox->isChecked(), value);
        }
    }

    void buttons()
    {
        NotificationRecorder recorder;
        QTest::mouseClick(child<QPushButton>("checkNowButton"), Qt::LeftButton);
        QVERIFY(recorder.waitFor(QLatin1String(Notifications::HelperShouldCheckForUpdates)));
        recorder.settle();
        QCOMPARE(recorder.count(QLatin1String(Notifications::HelperShouldCheckForUpdates)), 1);
        QTest::mouseClick(child<QPushButton>("helpButton"), Qt::LeftButton);
        QCOMPARE(m_workspace.openedURLs, QList<QUrl>{VantorPref::faqAddress()});
        QTest::mouseClick(child<QPushButton>("uninstallButton"), Qt::LeftButton);
        QVERIFY(pane().uninstallSheet->isVisible());
        pane().cancelSheet(nullptr);
    }

    void clickedIconSendsOneBubbleThatIsRemoved()
    {
        QTest::mouseClick(pane().iconButton, Qt::LeftButton);
        QCOMPARE(bubbles().size(), 1);
        BubbleLayer *bubble = bubbles().first();
        QCOMPARE(bubble->size(), QSize(20, 20));
        QCOMPARE(iconPoint(bubble->position()), QPointF(100, 35));
        QCOMPARE(bubble->presentationOpacity(), 0.0); // invisible until animated
        QTRY_VERIFY(fade(bubble));
        // Shown at once, not only once the fade begins.
        QCOMPARE(bubble->presentationOpacity(), 1.0);
        QTRY_COMPARE(bubbles().size(), 0);
    }

    void eachBubbleEndsByItsOwnAnimation()
    {
        pane().addBubble();
        pane().addBubble();
        const QList<BubbleLayer *> both = bubbles();
        QCOMPARE(both.size(), 2);
        QTRY_VERIFY(fade(both[0]) && fade(both[1]));
        // The second's end removes only the second, whatever the order.
        pane().animationDidStop(fade(both[1]), true);
        QCOMPARE(bubbles(), QList<BubbleLayer *>{both[0]});
        // Interrupted, the first stays, faded out.
        fade(both[0])->stop();
        QTest::qWait(400);
        QCOMPARE(bubbles(), QList<BubbleLayer *>{both[0]});
        QCOMPARE(both[0]->presentationOpacity(), 0.0);
        both[0]->removeFromSuperlayer();
        QTRY_COMPARE(bubbles().size(), 0);
    }

    void pathAndFade_data()
    {
        QTest::addColumn<qreal>("progress");
        QTest::addColumn<QPointF>("expected");
        QTest::addColumn<qreal>("opacity");
        QTest::newRow("start below the centre") << 0.0 << QPointF(100, 35) << 1.0;
        QTest::newRow("arc passes lower right") << 0.25 << QPointF(100 + 15 * M_SQRT1_2, 50 - 15 * M_SQRT1_2) << 1.0;
        QTest::newRow("arc ends right of centre") << 0.5 << QPointF(115, 50) << 1.0;
        QTest::newRow("line midway, fade begins") << 0.75 << QPointF(117.5, 92.5) << 1.0;
        QTest::newRow("fading") << 0.875 << QPointF(118.75, 113.75) << 0.5067;
        QTest::newRow("end") << 1.0 << QPointF(120, 135) << 0.0;
    }
    void pathAndFade()
    {
        QFETCH(qreal, progress);
        QFETCH(QPointF, expected);
        QFETCH(qreal, opacity);
        std::unique_ptr<QVariantAnimation> animation(pane().bubbleAnimation());
        QCOMPARE(animation->duration(), 300);
        const QPointF at = static_cast<PathAnimation *>(animation.get())->pointAt(progress);
        const QPointF p = iconPoint(at);
        // The arc is drawn as a cubic curve: a quarter circle is met to within a hundredth.
        QVERIFY2(QLineF(p, expected).length() < 0.05, qPrintable(u"(%1, %2)"_s.arg(p.x()).arg(p.y())));
        // The whole bubble is on its layer: nothing clipped.
        QVERIFY(QRectF(pane().iconLayer()->rect()).contains(QRectF(at - QPointF(10, 10), QSizeF(20, 20))));
        std::unique_ptr<QVariantAnimation> fading(pane().opacityAnimation());
        fading->setCurrentTime(int(progress * 300));
        QVERIFY(qAbs(fading->currentValue().toReal() - opacity) < 0.001);
    }
};

QTEST_MAIN(TestVantorPref)
#include "tst_vantorpref.moc"
