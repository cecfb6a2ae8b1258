// The pane driven as the host drives it, on a real session bus: the settings tab, the
// notifications it answers and the bubbles of its icon. What start-up posts is the host
// suite's.

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
        QCOMPARE(pane().versionNumberTextField->text(), QStringLiteral("1.0.0"));
    }

    void init() { pane().tabView->setCurrentWidget(child<QWidget>("settingsTab")); }

    void visibleChangePostsOnce()
    {
        NotificationRecorder recorder;
        store()->setVisible(!store()->visible());
        store()->setHelperActive(store()->helperActive());
        store()->setAutorunAtLogin(store()->autorunAtLogin());
        // Observed only in the pane's own context.
        pane().observeValueForKeyPath(QStringLiteral("visible"), store(), {}, nullptr);
        pane().observeValueForKeyPath(QStringLiteral("helperActive"), store(), {}, &pane());
        recorder.settle();
        QCOMPARE(recorder.names(), QStringList{QLatin1String(Notifications::Visible)});
        store()->setVisible(!store()->visible());
    }

    void showHistoryBringsFirstTab()
    {
        QVERIFY(pane().tabView->currentIndex() != 0);
        DistributedNotificationCenter::defaultCenter()->postNotificationName(QStringLiteral("showHistory"));
        QTRY_COMPARE(pane().tabView->currentIndex(), 0);
    }

    void boxesGoThroughTheStore_data()
    {
        QTest::addColumn<QString>("box");
        QTest::addColumn<QString>("property");
        QTest::addColumn<bool>("stored"); // as the file was before the pane loaded
        QTest::addColumn<QString>("notification"); // posted when the box is switched on
        QTest::addColumn<QString>("offNotification");
        QTest::newRow("visible") << "visibleCheckBox"
                                 << "visible" << false << Notifications::Visible << Notifications::Visible;
        QTest::newRow("checkUpdates") << "checkUpdatesCheckBox"
                                      << "checkForUpdates" << true << Notifications::HelperEnableUpdates
                                      << Notifications::HelperDisableUpdates;
        QTest::newRow("runAtLogin") << "runAtLoginCheckBox"
                                    << "autorunAtLogin" << true << QString() << QString();
    }

    // How the store writes its file is the store's own suite.
    void boxesGoThroughTheStore()
    {
        QFETCH(QString, box);
        QFETCH(QString, property);
        QFETCH(bool, stored);
        QFETCH(QString, notification);
        QFETCH(QString, offNotification);
        QCheckBox *checkBox = child<QCheckBox>(qPrintable(box));
        QCOMPARE(checkBox->isChecked(), stored); // this function leaves it so

        for (const bool on : {!stored, stored}) {
            NotificationRecorder recorder;
            // On the box itself: a wide check box takes clicks only on its box and label.
            QTest::mouseClick(checkBox, Qt::LeftButton, {}, QPoint(8, checkBox->height() / 2));
            QCOMPARE(store()->property(qPrintable(property)).toBool(), on);
            recorder.settle();
            const QString expected = on ? notification : offNotification;
            if (!expected.isEmpty())
                QCOMPARE(recorder.count(expected), 1);
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

        m_workspace.openedURLs.clear();
        QTest::mouseClick(child<QPushButton>("helpButton"), Qt::LeftButton);
        QCOMPARE(m_workspace.openedURLs, QList<QUrl>{VantorPref::faqAddress()});

        // What the sheet does is the uninstall suite's.
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
        QTRY_VERIFY(bubble->animationForKey(QStringLiteral("opacity")));
        // Shown at once, not only once the fade begins.
        QCOMPARE(bubble->presentationOpacity(), 1.0);
        QTRY_COMPARE(bubbles().size(), 0);
    }

    void interruptedBubbleStays()
    {
        pane().addBubble();
        pane().addBubble();
        const QList<BubbleLayer *> both = bubbles();
        QTRY_VERIFY(both[0]->animationForKey(QStringLiteral("opacity"))
                    && both[1]->animationForKey(QStringLiteral("opacity")));
        both[0]->animationForKey(QStringLiteral("opacity"))->stop();
        // The second's end removes only the second, whatever the order.
        pane().animationDidStop(both[1]->animationForKey(QStringLiteral("opacity")), true);
        QCOMPARE(bubbles(), QList<BubbleLayer *>{both[0]});
        // The interrupted one is back in its model state, and stays.
        QTest::qWait(400);
        QCOMPARE(bubbles(), QList<BubbleLayer *>{both[0]});
        QCOMPARE(both[0]->presentationOpacity(), 0.0);
        both[0]->removeFromSuperlayer();
        QTRY_COMPARE(bubbles().size(), 0);
    }

    void pathGeometry_data()
    {
        QTest::addColumn<qreal>("progress");
        QTest::addColumn<QPointF>("expected");
        QTest::addColumn<qreal>("opacity");
        QTest::newRow("start below the centre") << 0.0 << QPointF(100, 35) << 1.0;
        QTest::newRow("arc passes lower right") << 0.25 << QPointF(100 + 15 * M_SQRT1_2, 50 - 15 * M_SQRT1_2) << 1.0;
        QTest::newRow("arc ends right of centre") << 0.5 << QPointF(115, 50) << 1.0;
        QTest::newRow("line midway, fade begins") << 0.75 << QPointF(117.5, 92.5) << 1.0;
        QTest::newRow("end") << 1.0 << QPointF(120, 135) << 0.0;
    }

    void pathGeometry()
    {
        QFETCH(qreal, progress);
        QFETCH(QPointF, expected);
        QFETCH(qreal, opacity);
        std::unique_ptr<QVariantAnimation> animation(pane().bubbleAnimation());
        QCOMPARE(animation->duration(), 300);
        const QPointF at = static_cast<PathAnimation *>(animation.get())->pointAt(progress);
        const QPointF p = iconPoint(at);
        // The arc is drawn as a cubic curve: a quarter circle is met to within a hundredth.
        QVERIFY2(QLineF(p, expected).length() < 0.05, qPrintable(QStringLiteral("(%1, %2)").arg(p.x()).arg(p.y())));
        // The whole bubble is on its layer: nothing clipped.
        QVERIFY(QRectF(pane().iconLayer()->rect()).contains(QRectF(at - QPointF(10, 10), QSizeF(20, 20))));

        std::unique_ptr<QVariantAnimation> fade(pane().opacityAnimation());
        fade->setCurrentTime(int(progress * 300));
        QCOMPARE(fade->currentValue().toReal(), opacity);
    }
};

QTEST_MAIN(TestVantorPref)
#include "tst_vantorpref.moc"
