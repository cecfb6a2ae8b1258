#pragma once

#include <QHash>
#include <QPixmap>
#include <QPointer>
#include <QVariantAnimation>
#include <QWidget>

class QPainterPath;

// A small picture that animations move and fade, drawn in a transparent overlay. Like a
// layer it has a model state (position, opacity) that it shows whenever no animation runs,
// and it keeps its animations by key.
class BubbleLayer : public QWidget
{
    Q_OBJECT
public:
    explicit BubbleLayer(QWidget *superlayer);

    void setContents(const QPixmap &contents);
    // The centre, in the superlayer's coordinates.
    void setPosition(const QPointF &position);
    QPointF position() const { return m_position; }
    void setOpacity(qreal opacity);
    qreal opacity() const { return m_opacity; }
    qreal presentationOpacity() const { return m_presentationOpacity; }

    // Runs animation on this layer under key; an animation whose property is "position" or
    // "opacity" drives that property until it ends.
    void addAnimation(QVariantAnimation *animation, const QString &key);
    QVariantAnimation *animationForKey(const QString &key) const;
    void removeAllAnimations();
    void removeFromSuperlayer();

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    void showPosition(const QPointF &centre);

    QPixmap m_contents;
    QPointF m_position;
    qreal m_opacity = 1.0;
    qreal m_presentationOpacity = 1.0;
    QHash<QString, QPointer<QVariantAnimation>> m_animations;
};

// Moves along a path as a key-frame animation does: every segment of the path (a line or a
// curve) takes an equal share of the time. Values are points.
class PathAnimation : public QVariantAnimation
{
    Q_OBJECT
public:
    explicit PathAnimation(const QPainterPath &path, QObject *parent = nullptr);

    QPointF pointAt(qreal progress) const;

protected:
    QVariant interpolated(const QVariant &from, const QVariant &to, qreal progress) const override;

private:
    struct Segment {
        QPointF p0, p1, p2, p3;
        bool curve;
    };
    QList<Segment> m_segments;
    QPointF m_start;
};
