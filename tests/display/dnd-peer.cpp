// A file manager on the same display: drags the paths it was given as URLs when pressed, takes
// any drop of URLs, and prints "ready", "dropped <url>..." and "result copy|other" lines.
#include <QApplication>
#include <QDrag>
#include <QDropEvent>
#include <QMimeData>
#include <QMouseEvent>
#include <QUrl>
#include <QWidget>

#include <cstdio>

namespace {

class Peer : public QWidget
{
public:
    explicit Peer(QList<QUrl> urls)
        : m_urls(std::move(urls))
    {
        setAcceptDrops(true);
    }

protected:
    void showEvent(QShowEvent *) override { std::puts("ready"); }

    void mouseMoveEvent(QMouseEvent *event) override
    {
        if (m_urls.isEmpty() || !(event->buttons() & Qt::LeftButton) || m_dragging)
            return;
        m_dragging = true;
        auto *drag = new QDrag(this);
        auto *data = new QMimeData;
        data->setUrls(m_urls);
        drag->setMimeData(data);
        const Qt::DropAction result = drag->exec(Qt::CopyAction | Qt::MoveAction | Qt::LinkAction);
        std::puts(result == Qt::CopyAction ? "result copy" : "result other");
        m_dragging = false;
    }

    void dragEnterEvent(QDragEnterEvent *event) override
    {
        if (event->mimeData()->hasUrls() && event->source() != this)
            event->acceptProposedAction();
    }

    void dropEvent(QDropEvent *event) override
    {
        QByteArray line = "dropped";
        for (const QUrl &url : event->mimeData()->urls())
            line += ' ' + url.toEncoded();
        std::puts(line.constData());
        event->setDropAction(Qt::CopyAction);
        event->accept();
    }

private:
    QList<QUrl> m_urls;
    bool m_dragging = false;
};

} // namespace

// dnd-peer <x> <y> <width> <height> [path...]
int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0); // each line reaches the test at once
    const QStringList args = app.arguments();
    QList<QUrl> urls;
    for (const QString &path : args.mid(5))
        urls.append(QUrl::fromLocalFile(path));
    Peer peer(urls);
    peer.setGeometry(args.value(1).toInt(), args.value(2).toInt(), args.value(3).toInt(), args.value(4).toInt());
    peer.show();
    return app.exec();
}
