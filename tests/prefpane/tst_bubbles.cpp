#include "prefpane/BubbleLayer.h"
#include "platform/Bundle.h"
#include "FakePaneHost.h"
#include "TestEnvironment.h"
#include "prefpane/VantorPref.h"

#include <QApplication>
#include <QPushButton>
#include <QTest>

class TestBubbles : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void oneBubbleRisesAndIsRemoved();
    void clickOnIconSendsBubble();
    void interruptedBubbleStays();
    void eachBubbleIsRemovedByItsOwnAnimation();
    void pathGeometry_data();
    void pathGeometry();
    void opacityKeyFrames_data();
    void opacityKeyFrames();

private:
    QList<BubbleLayer *> bubbles() { return m_pane.iconLayer()->findChildren<BubbleLayer *>(); }
    // A point of the layer in the icon's y-up coordinates.
    QPointF iconPoint(const QPointF &layerPoint) { return {layerPoint.x(), m_pane.iconLayer()->height() - layerPoint.y()}; }

    TestEnvironment m_env;
    FakePaneHost m_host;
    VantorPref m_pane;
};

void TestBubbles::initTestCase()
{
    m_pane.initWithBundle(Bundle::bundleWithPath(TestEnvironment::paneBundle()), &m_host);
    m_host.window = m_pane.loadMainView();
    m_host.window->show();
}

void TestBubbles::oneBubbleRisesAndIsRemoved()
{
    m_pane.addBubble();
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

void TestBubbles::clickOnIconSendsBubble()
{
    QTest::mouseClick(m_pane.iconButton, Qt::LeftButton);
    QCOMPARE(bubbles().size(), 1);
    QTRY_COMPARE(bubbles().size(), 0);
}

void TestBubbles::interruptedBubbleStays()
{
    m_pane.addBubble();
    BubbleLayer *bubble = bubbles().first();
    QTRY_VERIFY(bubble->animationForKey(QStringLiteral("opacity")));
    bubble->animationForKey(QStringLiteral("opacity"))->stop();
    QTest::qWait(400);
    QCOMPARE(bubbles().size(), 1);
    QCOMPARE(bubble->presentationOpacity(), 0.0);
    bubble->removeFromSuperlayer();
    QTRY_COMPARE(bubbles().size(), 0);
}

void TestBubbles::eachBubbleIsRemovedByItsOwnAnimation()
{
    m_pane.addBubble();
    m_pane.addBubble();
    QList<BubbleLayer *> both = bubbles();
    QCOMPARE(both.size(), 2);
    QTRY_VERIFY(both[0]->animationForKey(QStringLiteral("opacity")) && both[1]->animationForKey(QStringLiteral("opacity")));
    // The second's stop removes only the second, whatever the order.
    m_pane.animationDidStop(both[1]->animationForKey(QStringLiteral("opacity")), true);
    QCOMPARE(bubbles(), QList<BubbleLayer *>{both[0]});
    QTRY_COMPARE(bubbles().size(), 0);
}

void TestBubbles::pathGeometry_data()
{
    QTest::addColumn<qreal>("progress");
    QTest::addColumn<QPointF>("expected");
    QTest::newRow("start below the centre") << 0.0 << QPointF(100, 35);
    QTest::newRow("arc passes lower right") << 0.25 << QPointF(100 + 15 * M_SQRT1_2, 50 - 15 * M_SQRT1_2);
    QTest::newRow("arc ends right of centre") << 0.5 << QPointF(115, 50);
    QTest::newRow("line midway") << 0.75 << QPointF(117.5, 92.5);
    QTest::newRow("end") << 1.0 << QPointF(120, 135);
}

void TestBubbles::pathGeometry()
{
    QFETCH(qreal, progress);
    QFETCH(QPointF, expected);
    std::unique_ptr<QVariantAnimation> animation(m_pane.bubbleAnimation());
    QCOMPARE(animation->duration(), 300);
    const QPointF p = iconPoint(static_cast<PathAnimation *>(animation.get())->pointAt(progress));
    // The arc is drawn as a cubic curve: a quarter circle is met to within a hundredth.
    QVERIFY2(QLineF(p, expected).length() < 0.05, qPrintable(QStringLiteral("(%1, %2)").arg(p.x()).arg(p.y())));
}

void TestBubbles::opacityKeyFrames_data()
{
    QTest::addColumn<int>("ms");
    QTest::addColumn<qreal>("opacity");
    QTest::newRow("start") << 0 << 1.0;
    QTest::newRow("three quarters") << 225 << 1.0;
    QTest::newRow("fading") << 262 << 0.5067;
    QTest::newRow("end") << 300 << 0.0;
}

void TestBubbles::opacityKeyFrames()
{
    QFETCH(int, ms);
    QFETCH(qreal, opacity);
    std::unique_ptr<QVariantAnimation> animation(m_pane.opacityAnimation());
    animation->setCurrentTime(ms);
    QVERIFY(qAbs(animation->currentValue().toReal() - opacity) < 0.001);
}

QTEST_MAIN(TestBubbles)
#include "tst_bubbles.moc"
