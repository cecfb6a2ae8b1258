// The icon's bubbles: each rises from the icon along an arc and a line, fading at the end.

#include "prefpane/VantorPref.h"

#include "prefpane/BubbleLayer.h"
#include "platform/Bundle.h"

#include <QPainterPath>
#include <QPushButton>
#include <QTimer>

namespace {

// In the icon's own y-up coordinates.
constexpr QSizeF kBubbleSize(20, 20);
constexpr QPointF kStartPosition(100, 35);
constexpr QPointF kArcCentre(100, 50);
constexpr qreal kArcRadius = 15;
constexpr QPointF kLineEnd(120, 135);
constexpr int kDurationMs = 300;
constexpr int kStartDelayMs = 10;

} // namespace

QWidget *VantorPref::iconLayer()
{
    if (!m_iconLayer) {
        // Above the icon and reaching higher and wider than it, so rising bubbles are not clipped.
        const QRect icon = iconButton->geometry();
        const int headroom = int(kLineEnd.y() + kBubbleSize.height()) - icon.height();
        m_iconLayer = new QWidget(iconButton->parentWidget());
        m_iconLayer->setObjectName(QStringLiteral("iconLayer"));
        m_iconLayer->setAttribute(Qt::WA_TransparentForMouseEvents);
        m_iconLayer->setAttribute(Qt::WA_NoSystemBackground);
        const int width = qMax(icon.width(), int(kLineEnd.x() + kBubbleSize.width() / 2));
        m_iconLayer->setGeometry(icon.x(), icon.y() - headroom, width, icon.height() + headroom);
        m_iconLayer->show();
        m_iconLayer->raise();
    }
    return m_iconLayer;
}

QPointF VantorPref::iconLayerPoint(const QPointF &point)
{
    // The layer's bottom is the icon's bottom; y grows upwards from there.
    return QPointF(point.x(), iconLayer()->height() - point.y());
}

void VantorPref::addBubble()
{
    auto *layer = new BubbleLayer(iconLayer());
    if (bundle()) {
        const QString image = bundle()->pathForResource(QStringLiteral("bubble"), QStringLiteral("png"));
        if (!image.isEmpty())
            layer->setContents(QPixmap(image));
    }
    layer->resize(kBubbleSize.toSize());
    layer->setPosition(iconLayerPoint(kStartPosition));
    layer->setOpacity(0);
    layer->show();
    // Shown first in its start state, invisible, then animated.
    QTimer::singleShot(kStartDelayMs, layer, [this, layer] { animateBubbleLayer(layer); });
}

void VantorPref::animateBubbleLayer(BubbleLayer *layer)
{
    layer->addAnimation(bubbleAnimation(), QStringLiteral("position"));
    layer->addAnimation(opacityAnimation(), QStringLiteral("opacity"));
}

QVariantAnimation *VantorPref::bubbleAnimation()
{
    // A quarter circle counter-clockwise from straight below the centre to its right, then
    // a line up and out.
    QPainterPath path;
    const QPointF centre = iconLayerPoint(kArcCentre);
    const QRectF circle(centre.x() - kArcRadius, centre.y() - kArcRadius, 2 * kArcRadius, 2 * kArcRadius);
    path.arcMoveTo(circle, 270);
    path.arcTo(circle, 270, 90);
    path.lineTo(iconLayerPoint(kLineEnd));

    auto *animation = new PathAnimation(path);
    animation->setDuration(kDurationMs);
    animation->setProperty("removedOnCompletion", true);
    return animation;
}

QVariantAnimation *VantorPref::opacityAnimation()
{
    auto *animation = new QVariantAnimation;
    animation->setProperty("keyPath", QByteArray("opacity"));
    animation->setDuration(kDurationMs);
    animation->setStartValue(1.0);
    animation->setKeyValueAt(0.75, 1.0);
    animation->setEndValue(0.0);
    // Kept on the layer when done, so its stop can be matched to its bubble.
    animation->setProperty("removedOnCompletion", false);
    connect(animation, &QAbstractAnimation::stateChanged, this,
            [this, animation](QAbstractAnimation::State now, QAbstractAnimation::State) {
                if (now == QAbstractAnimation::Stopped)
                    animationDidStop(animation, animation->currentTime() >= animation->duration());
            });
    return animation;
}

void VantorPref::animationDidStop(QAbstractAnimation *animation, bool finished)
{
    if (!finished)
        return;
    for (QObject *child : iconLayer()->children()) {
        auto *layer = qobject_cast<BubbleLayer *>(child);
        if (layer && layer->animationForKey(QStringLiteral("opacity")) == animation) {
            layer->removeAllAnimations();
            layer->removeFromSuperlayer();
            return;
        }
    }
}

void VantorPref::popBubbles(QObject *)
{
}
