// Any program of the user can post on the session bus, with any payload. Each input is
// turned into one "Post" signal (a name of the vocabulary and a dictionary of D-Bus values
// of every type, nested, empty or huge, sometimes under the wrong signature), sent over the
// real bus to this process and delivered to the handlers. Whatever arrives must be plain
// property-list values, as the handlers are promised.
#include "platform/DistributedNotificationCenter.h"
#include "FuzzInput.h"
#include "common/Notifications.h"
#include "platform/PropertyList.h"
#include "common/VTPreferenceCommunicator.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusSignature>
#include <QDBusVariant>
#include <QElapsedTimer>

#include <cstdio>
#include <cstring>
#include <cstdlib>

namespace {

QVariant value(FuzzInput &in, int depth);

QVariantMap dictionary(FuzzInput &in, int depth)
{
    QVariantMap map;
    const int n = in.byte() % 8;
    for (int i = 0; i < n; ++i) {
        const QString key = QString::fromUtf8(in.bytes(in.byte() % 16)); // before the value, on every compiler
        map.insert(key, value(in, depth + 1));
    }
    return map;
}

QVariant value(FuzzInput &in, int depth)
{
    // Containers stop at a depth D-Bus still carries (32 nested containers at most; libdbus
    // itself crashes when a sender goes deeper).
    const int kind = in.byte() % (depth > 4 ? 13 : 18);
    switch (kind) {
    case 0:
        return bool(in.byte() & 1);
    case 1:
        return QVariant::fromValue(uchar(in.byte()));
    case 2:
        return QVariant::fromValue(short(in.word()));
    case 3:
        return QVariant::fromValue(ushort(in.word()));
    case 4:
        return int(in.word());
    case 5:
        return uint(in.word());
    case 6:
        return qlonglong(in.word());
    case 7:
        return qulonglong(in.word());
    case 8: {
        const quint64 bits = in.word();
        double d;
        std::memcpy(&d, &bits, sizeof d);
        return d;
    }
    case 9:
        return QString::fromUtf8(in.bytes(in.byte()));
    case 10:
        return QVariant::fromValue(QDBusObjectPath(QStringLiteral("/com/quillfen/x%1").arg(in.byte())));
    case 11:
        return QVariant::fromValue(QDBusSignature(QStringLiteral("a{sv}")));
    case 12:
        return in.bytes(in.byte() * 4);
    case 13: {
        // Arrays, up to a huge one of 20,000 entries.
        const uint8_t n = in.byte();
        const int count = n >= 250 ? 20000 : n % 8;
        QVariantList list;
        if (count > 8) {
            // One plain value, many times: huge, yet well within what the bus carries.
            const QVariant item = value(in, 100);
            for (int i = 0; i < count; ++i)
                list.append(item);
        } else {
            for (int i = 0; i < count; ++i)
                list.append(value(in, depth + 1));
        }
        return list;
    }
    case 14:
        return dictionary(in, depth);
    case 15:
        return QVariant::fromValue(QDBusVariant(value(in, depth + 1)));
    case 16: {
        QStringList strings;
        for (int i = in.byte() % 8; i > 0; --i)
            strings.append(QString::fromUtf8(in.bytes(in.byte() % 32)));
        return strings;
    }
    default:
        return QVariantList{}; // an empty array
    }
}

// Names the pane and the helper handle, and one nobody does. Quitting and relaunching the
// host are left out: they would end the run rather than test it.
const char *const kNames[] = {
    Notifications::SavingsChanged, Notifications::FoldersRenamed, Notifications::ShowHistory, Notifications::Folders,
    Notifications::Version,        Notifications::Visible,        Notifications::Active,      "fuzz.nobody",
};
constexpr const char *kDone = "fuzz.done";

bool g_done = false;
int g_delivered = 0;

void check(const DistributedNotification &note)
{
    ++g_delivered;
    // Every payload must be one a property list can hold: the helper keeps and logs them.
    if (PropertyList::toData(note.userInfo).isEmpty()) {
        std::fprintf(stderr, "payload of %s is not a property-list value\n", qPrintable(note.name));
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    static QCoreApplication app(*argc, *argv);
    if (!QDBusConnection::sessionBus().isConnected()) {
        std::fprintf(stderr, "fuzz_notification needs a session bus (run it under dbus-run-session)\n");
        std::exit(1);
    }
    VTPreferenceCommunicator::sharedCommunicatorController();
    auto *center = DistributedNotificationCenter::defaultCenter();
    for (const char *name : kNames)
        center->addObserver(&app, QLatin1String(name), check);
    center->addObserver(&app, QLatin1String(kDone), [](const DistributedNotification &) { g_done = true; });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in(data, size);
    const QString name = QLatin1String(kNames[in.byte() % std::size(kNames)]);
    const uint8_t shape = in.byte();

    QDBusMessage signal = QDBusMessage::createSignal(QLatin1String(DistributedNotificationCenter::kPath),
                                                     QLatin1String(DistributedNotificationCenter::kInterface),
                                                     QLatin1String(DistributedNotificationCenter::kMember));
    switch (shape % 8) {
    case 0:
        signal << name;
        break; // no payload at all
    case 1:
        signal << name << value(in, 0);
        break; // a payload that is no dictionary
    case 2:
        signal << name << dictionary(in, 0) << value(in, 0);
        break; // one argument too many
    default:
        signal << name << dictionary(in, 0);
        break;
    }
    QDBusConnection bus = QDBusConnection::sessionBus();
    bus.send(signal);

    // Messages from one sender arrive in order: once "done" is heard, the input has been handled.
    g_done = false;
    bus.send(QDBusMessage::createSignal(QLatin1String(DistributedNotificationCenter::kPath),
                                        QLatin1String(DistributedNotificationCenter::kInterface),
                                        QLatin1String(DistributedNotificationCenter::kMember))
             << QString::fromLatin1(kDone) << QVariantMap());
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
