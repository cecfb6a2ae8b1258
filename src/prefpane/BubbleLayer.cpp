#include "prefpane/BubbleLayer.h"

#include <QPainter>
#include <QPainterPath>

BubbleLayer::BubbleLayer(QWidget *superlayer)
    : QWidget(superlayer)
{
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setAttribute(Qt::WA_NoSystemBackground);
}

void BubbleLayer::setContents(const QPixmap &contents)
{
    m_contents = contents;
    update();
}

void BubbleLayer::setPosition(const QPointF &position)
{
    m_position = position;
    if (!animationForKey(QStringLiteral("position")))
        showPosition(position);
}

void BubbleLayer::showPosition(const QPointF &centre)
{
    move(qRound(centre.x() - width() / 2.0), qRound(centre.y() - height() / 2.0));
}

void BubbleLayer::setOpacity(qreal opacity)
{
    m_opacity = opacity;
    if (!animationForKey(QStringLiteral("opacity"))) {
        m_presentationOpacity = opacity;
        update();
    }
}

void BubbleLayer::addAnimation(QVariantAnimation *animation, const QString &key)
{
    if (QVariantAnimation *old = animationForKey(key)) {
        old->stop();
        old->deleteLater();
    }
    animation->setParent(this);
    m_animations.insert(key, animation);
    const QByteArray property = animation->property("keyPath").toByteArray();
    auto present = [this, property](const QVariant &value) {
        if (property == "position")
            showPosition(value.toPointF());
        else if (property == "opacity") {
            m_presentationOpacity = value.toReal();
            update();
        }
    };
    connect(animation, &QVariantAnimation::valueChanged, this, present);
    // Back to the model state whenever it stops, finished or interrupted.
    connect(animation, &QAbstractAnimation::stateChanged, this, [this, property](QAbstractAnimation::State now) {
        if (now != QAbstractAnimation::Stopped)
            return;
        if (property == "position")
            showPosition(m_position);
        else if (property == "opacity") {
            m_presentationOpacity = m_opacity;
            update();
        }
    });
    // Removed from the layer on completion if it asks to be.
    connect(animation, &QAbstractAnimation::finished, this, [this, key, animation] {
        if (animation->property("removedOnCompletion").toBool() && m_animations.value(key) == animation) {
            m_animations.remove(key);
            animation->deleteLater();
        }
    });
    animation->start();
    // An animation whose first value equals the one it was built with reports no change when
    // it starts: show where it stands now.
    present(animation->currentValue());
}

QVariantAnimation *BubbleLayer::animationForKey(const QString &key) const
{
    return m_animations.value(key);
}

void BubbleLayer::removeAllAnimations()
{
    const auto animations = m_animations;
    m_animations.clear();
    for (const QPointer<QVariantAnimation> &a : animations) {
        if (a) {
            a->disconnect(this);
            a->stop();
            a->deleteLater();
        }
    }
    showPosition(m_position);
    m_presentationOpacity = m_opacity;
    update();
}

void BubbleLayer::removeFromSuperlayer()
{
    hide();
    setParent(nullptr);
    deleteLater();
}

void BubbleLayer::paintEvent(QPaintEvent *)
{
    if (m_contents.isNull() || m_presentationOpacity <= 0)
        return;
    QPainter painter(this);
    painter.setOpacity(m_presentationOpacity);
    painter.drawPixmap(rect(), m_contents);
}

PathAnimation::PathAnimation(const QPainterPath &path, QObject *parent)
    : QVariantAnimation(parent)
{
    setProperty("keyPath", QByteArray("position"));
    QPointF current;
    for (int i = 0; i < path.elementCount(); ++i) {
        const QPainterPath::Element e = path.elementAt(i);
        if (e.isMoveTo()) {
            current = e;
            if (m_segments.isEmpty())
                m_start = current;
        } else if (e.isLineTo()) {
            m_segments.append({current, current, e, e, false});
            current = e;
        } else if (e.isCurveTo() && i + 2 < path.elementCount()) {
            const QPointF c2 = path.elementAt(i + 1), end = path.elementAt(i + 2);
            m_segments.append({current, e, c2, end, true});
            current = end;
            i += 2;
        }
    }
    setStartValue(0.0);
    setEndValue(1.0);
}

QPointF PathAnimation::pointAt(qreal progress) const
{
    if (m_segments.isEmpty())
        return m_start;
    const qreal scaled = qBound(0.0, progress, 1.0) * m_segments.size();
    const int index = qMin(int(scaled), int(m_segments.size()) - 1);
    const qreal t = scaled - index;
    const Segment &s = m_segments.at(index);
    if (!s.curve)
        return s.p0 + (s.p3 - s.p0) * t;
    const qreal u = 1 - t;
    return u * u * u * s.p0 + 3 * u * u * t * s.p1 + 3 * u * t * t * s.p2 + t * t * t * s.p3;
}

QVariant PathAnimation::interpolated(const QVariant &, const QVariant &, qreal progress) const
{
    return pointAt(progress);
}
