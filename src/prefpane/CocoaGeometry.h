#pragma once

#include <QRect>
#include <QWidget>

// The interface's measurements come from a y-up coordinate system (origin at the lower left
// of the superview). This is the one place they are turned into Qt's y-down rectangles.
namespace CocoaGeometry {

inline QRect rectInSuperview(const QWidget *superview, int x, int y, int width, int height)
{
    return QRect(x, superview->height() - y - height, width, height);
}

} // namespace CocoaGeometry
