// Any program of the user can post on the session bus, with any payload: each input is one
// "Post" signal sent over the real bus to this process. Whatever reaches the handlers must be
// plain property-list values, as they are promised.
#include "platform/DistributedNotificationCenter.h"
#include "FuzzInput.h"
#include "common/Notifications.h"
#include "platform/PropertyList.h"
#include "common/VTPreferenceCommunicator.h"

#include <QDBusMessage>
#include <QElapsedTimer>

namespace {

QString text(FuzzInput &in)
{
    return QString::fromUtf8(in.bytes(in.byte()));
}

// Names the pane and the helper handle, and one nobody does. Quitting and relaunching the
// host are left out: they would end the run rather than test it.
const char *const kNames[] = {
    Notifications::SavingsChanged, Notifications::FoldersRenamed, Notifications::ShowHistory, Notifications::Folders,
    Notifications::Version,        Notifications::Visible,        Notifications::Active,      "fuzz.nobody",
};
constexpr const char *kDone = "fuzz.done";
bool g_done = false;

QDBusMessage post(const QString &name)
{
    return QDBusMessage::createSignal(QLatin1String(DistributedNotificationCenter::kPath),
                                      QLatin1String(DistributedNotificationCenter::kInterface),
                                      QLatin1String(DistributedNotificationCenter::kMember))
        << name;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    FuzzInput::startOnSessionBus(argc, argv);
    VTPreferenceCommunicator::sharedCommunicatorController();
    auto *center = DistributedNotificationCenter::defaultCenter();
    for (const char *name : kNames) {
        center->addObserver(center, QLatin1String(name), [](const DistributedNotification &note) {
            // Every payload must be one a property list can hold: the helper keeps and logs them.
            if (PropertyList::toData(note.userInfo).isEmpty()) {
                std::fprintf(stderr, "payload of %s is not a property-list value\n", qPrintable(note.name));
                std::abort();
            }
        });
    }
    center->addObserver(center, QLatin1String(kDone), [](const DistributedNotification &) { g_done = true; });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in(data, size);
    QDBusMessage signal = post(QLatin1String(kNames[in.byte() % std::size(kNames)]));
    switch (in.byte() % 8) {
    case 0:
        break; // no payload at all
    case 1:
        signal << in.value(text); // a payload that is no dictionary
        break;
    case 2:
        signal << in.dictionary(text) << in.value(text); // one argument too many
        break;
    default:
        signal << in.dictionary(text);
        break;
    }
    QDBusConnection bus = QDBusConnection::sessionBus();
    bus.send(signal);

    // Messages from one sender arrive in order: once "done" is heard, the input has been handled.
    g_done = false;
    bus.send(post(QString::fromLatin1(kDone)) << QVariantMap());
    QElapsedTimer timer;
    timer.start();
    while (!g_done) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 100);
        if (timer.elapsed() > 20000) {
            std::fprintf(stderr, "the bus stopped delivering\n");
            std::abort();
        }
    }
    return 0;
}
