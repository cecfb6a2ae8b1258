// The baseline for bench-startup: a bare Qt window, started and measured the same way.
#include <QApplication>
#include <QLabel>
#include <QTimer>

#include <cstdio>
#include <ctime>

class FirstFrame : public QObject
{
public:
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::Paint && !m_done) {
            m_done = true;
            QTimer::singleShot(0, [] {
                timespec ts = {};
                clock_gettime(CLOCK_MONOTONIC, &ts);
                std::printf("first-frame %lld\n", (long long)ts.tv_sec * 1000000000LL + ts.tv_nsec);
                std::fflush(stdout);
                QCoreApplication::exit(0);
            });
        }
        return false;
    }

private:
    bool m_done = false;
};

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    QLabel label(QStringLiteral("Hello"));
    label.resize(720, 472);
    FirstFrame filter;
    label.installEventFilter(&filter);
    label.show();
    return app.exec();
}
