// The helper's handling of "com.quillfen.vantor.folders", fed payloads no pane would send, on
// a real store in a temporary home and an engine kept inactive, so nothing on this machine is
// rewritten. Whatever comes, the helper must keep one record per folder.
#include "helper/CompressionEngine.h"
#include "helper/FolderWatch.h"
#include "helper/DesktopNotifier.h"
#include "helper/FolderRequests.h"
#include "FuzzInput.h"
#include "common/HistoryContext.h"
#include "common/Notifications.h"
#include "helper/SavingsModel.h"

#include <QDir>
#include <QFile>
#include <QSet>
#include <QTemporaryDir>

namespace {

QString g_root;
SavingsModel *g_savings = nullptr;
FolderRequests *g_requests = nullptr;

// Folders that exist below the root, some with names people do use.
const char *const kFolders[] = {"plain", "M\xc3\xbasica", "two\nlines", "sp ace/inner", "\xef\xbf\xbd", "a/b/c"};

QString path(FuzzInput &in)
{
    const QString known = g_root + u'/' + QString::fromUtf8(kFolders[in.byte() % std::size(kFolders)]);
    switch (in.byte() % 10) {
    case 0:
        return known;
    case 1:
        return known + QString::fromUtf8(in.bytes(in.byte() % 8)); // "/", "/.", "//", "/../plain"...
    case 2:
        return g_root + u'/' + QString::fromUtf8(in.bytes(in.byte() % 32));
    case 3:
        return QString::fromUtf8(in.bytes(in.byte() % 32)); // relative, or anywhere
    case 4: {
        // UTF-16 as it comes: lone surrogates, NULs, noncharacters.
        const QByteArray units = in.bytes((in.byte() % 16) * 2);
        return known + QString(reinterpret_cast<const QChar *>(units.constData()), units.size() / 2);
    }
    case 5:
        return known + QChar(0) + QString::fromUtf8(in.bytes(in.byte() % 8));
    case 6:
        return known + QString::fromUtf8(in.bytes(in.byte() % 8)).repeated(5000);
    case 7:
        return QString::fromLatin1(in.bytes(in.byte() % 32));
    case 8:
        return g_root + QStringLiteral("/plain/..").repeated(in.byte() % 40) + QStringLiteral("/a");
    default:
        return QString();
    }
}

QString key(FuzzInput &in)
{
    const uint8_t choice = in.byte() % 6;
    if (choice < 4)
        return QLatin1String(choice < 2 ? Notifications::FoldersToAddKey : Notifications::FoldersToRemoveKey);
    return choice == 4 ? QStringLiteral("FoldersToAdd") : QString::fromUtf8(in.bytes(in.byte() % 16));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    // The store and everything else the helper keeps go into a home of our own.
    static QTemporaryDir root;
    g_root = root.path();
    for (const char *folder : kFolders)
        QDir().mkpath(g_root + u'/' + QString::fromUtf8(folder));
    QDir().mkpath(g_root + QStringLiteral("/home/.local/share"));
    qputenv("HOME", QFile::encodeName(g_root + QStringLiteral("/home")));
    qputenv("XDG_DATA_HOME", QFile::encodeName(g_root + QStringLiteral("/home/.local/share")));
    FuzzInput::startOnSessionBus(argc, argv);
    // Every skipped folder and every unanswered desktop notification is logged; not here.
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &message) {
        if (type == QtFatalMsg) {
            std::fprintf(stderr, "%s\n", qPrintable(message));
            std::abort();
        }
    });
    g_savings = new SavingsModel;
    auto *engine = new CompressionEngine(g_savings, new DesktopNotifier, new FolderWatch);
    engine->setSwitchedOn(false);
    g_requests = new FolderRequests(g_savings, engine);
    if (!g_savings->context()) {
        std::fprintf(stderr, "fuzz_folderrequests: no history store (is History.vtmodel in the bundle?)\n");
        std::exit(1);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in(data, size);
    QVariantMap userInfo;
    for (int i = in.byte() % 4; i > 0; --i) {
        const QString name = key(in); // read before the value, whichever order a compiler takes
        userInfo.insert(name, in.value(path));
    }
    g_requests->handle(userInfo);
    QCoreApplication::processEvents();

    QSet<QString> folders;
    for (const HistoryRecord &record : g_savings->records(HistoryContext::Predicate::All)) {
        if (folders.contains(record.folder)) {
            std::fprintf(stderr, "two records of one folder: %s\n", qPrintable(record.folder));
            std::abort();
        }
        folders.insert(record.folder);
    }
    return 0;
}
