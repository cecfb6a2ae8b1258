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

#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusSignature>
#include <QDBusVariant>
#include <QElapsedTimer>

#include <bit>

namespace {

QVariant value(FuzzInput &in, int depth);

QVariantMap dictionary(FuzzInput &in, int depth)
{
    QVariantMap map;
    for (int i = in.byte() % 8; i > 0; --i) {
        const QString key = QString::fromUtf8(in.bytes(in.byte() % 16)); // before the value, on every compiler
        map.insert(key, value(in, depth + 1));
    }
    return map;
}

QVariant list(FuzzInput &in, int depth)
{
    // Up to a huge array of 20,000 entries: one plain value many times, well within what the
    // bus carries.
    const uint8_t n = in.byte();
    QVariantList list;
    if (n >= 250)
        list.fill(value(in, 100), 20000);
    for (int i = n >= 250 ? 0 : n % 8; i > 0; --i)
        list.append(value(in, depth + 1));
    return list;
}

QVariant strings(FuzzInput &in, int)
{
    QStringList strings;
    for (int i = in.byte() % 8; i > 0; --i)
        strings.append(QString::fromUtf8(in.bytes(in.byte() % 32)));
    return strings;
}

QVariant value(FuzzInput &in, int depth)
{
    using Make = QVariant (*)(FuzzInput &, int);
    static constexpr Make kinds[] = {
        [](FuzzInput &in, int) -> QVariant { return bool(in.byte() & 1); },
        [](FuzzInput &in, int) { return QVariant::fromValue(uchar(in.byte())); },
        [](FuzzInput &in, int) { return QVariant::fromValue(short(in.word())); },
        [](FuzzInput &in, int) { return QVariant::fromValue(ushort(in.word())); },
        [](FuzzInput &in, int) { return QVariant(int(in.word())); },
        [](FuzzInput &in, int) { return QVariant(uint(in.word())); },
        [](FuzzInput &in, int) { return QVariant(qlonglong(in.word())); },
        [](FuzzInput &in, int) { return QVariant(qulonglong(in.word())); },
        [](FuzzInput &in, int) { return QVariant(std::bit_cast<double>(in.word())); },
        [](FuzzInput &in, int) { return QVariant(QString::fromUtf8(in.bytes(in.byte()))); },
        [](FuzzInput &in, int) {
            return QVariant::fromValue(QDBusObjectPath(QStringLiteral("/com/quillfen/x%1").arg(in.byte())));
        },
        [](FuzzInput &, int) { return QVariant::fromValue(QDBusSignature(QStringLiteral("a{sv}"))); },
        [](FuzzInput &in, int) { return QVariant(in.bytes(in.byte() * 4)); },
        // Containers stop at a depth D-Bus still carries (32 nested containers at most; libdbus
        // itself crashes when a sender goes deeper).
        list,
        [](FuzzInput &in, int depth) { return QVariant(dictionary(in, depth)); },
        [](FuzzInput &in, int depth) { return QVariant::fromValue(QDBusVariant(value(in, depth + 1))); },
        strings,
        [](FuzzInput &, int) { return QVariant(QVariantList()); },
    };
    return kinds[in.byte() % (depth > 4 ? 13 : 18)](in, depth);
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
        signal << value(in, 0); // a payload that is no dictionary
        break;
    case 2:
        signal << dictionary(in, 0) << value(in, 0); // one argument too many
        break;
    default:
        signal << dictionary(in, 0);
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
