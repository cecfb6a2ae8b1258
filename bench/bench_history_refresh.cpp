// The full refresh that "vantorSavingsChanged" triggers, over 10,000 History records (a tenth
// unlisted), against the same reads done as bare SQLite queries.
#include "platform/Bundle.h"
#include "platform/DistributedNotificationCenter.h"
#include "prefpane/HistoryArrayModel.h"
#include "prefpane/VTHistoryController.h"
#include "common/VTUtil.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>

#include <sqlite3.h>

#include <algorithm>
#include <cstdio>

namespace {

constexpr int kRecords = 10000;
constexpr int kRounds = 30;

void fill(const QString &path)
{
    sqlite3 *db = nullptr;
    sqlite3_open(QFile::encodeName(path).constData(), &db);
    sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
    sqlite3_stmt *insert = nullptr;
    sqlite3_prepare_v2(db, "INSERT INTO ZHISTORY (ZFOLDER, ZSTATUS, ZSAVINGS, ZENABLED) VALUES (?, ?, ?, ?)", -1,
                       &insert, nullptr);
    for (int i = 0; i < kRecords; ++i) {
        const QByteArray folder = "/home/user/Folders/folder-" + QByteArray::number(i);
        sqlite3_bind_text(insert, 1, folder.constData(), int(folder.size()), SQLITE_TRANSIENT);
        sqlite3_bind_int(insert, 2, i % 101);
        sqlite3_bind_int64(insert, 3, qint64(i) * 4096);
        sqlite3_bind_int(insert, 4, i % 10 == 0 ? 0 : 1);
        sqlite3_step(insert);
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(db);
}

// The same three reads, with nothing built from them.
qint64 bareQueries(sqlite3 *db)
{
    QElapsedTimer timer;
    timer.start();
    quint64 sum = 0;
    sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
    for (const char *sql : {"SELECT ZSAVINGS FROM ZHISTORY",
                            "SELECT ZFOLDER, ZSTATUS, ZSAVINGS, ZENABLED FROM ZHISTORY WHERE ZENABLED = 1",
                            "SELECT ZSAVINGS FROM ZHISTORY WHERE ZENABLED = 0"}) {
        sqlite3_stmt *statement = nullptr;
        sqlite3_prepare_v2(db, sql, -1, &statement, nullptr);
        while (sqlite3_step(statement) == SQLITE_ROW) {
            sum += quint64(sqlite3_column_int64(statement, 0));
            sqlite3_column_text(statement, 0);
        }
        sqlite3_finalize(statement);
    }
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    const qint64 elapsed = timer.nsecsElapsed();
    if (sum == 42)
        std::puts("");
    return elapsed;
}

} // namespace

int main(int argc, char **argv)
{
    QTemporaryDir home;
    qputenv("XDG_DATA_HOME", QFile::encodeName(home.path()));
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    if (!Bundle::bundleWithPath(QStringLiteral(VANTOR_PANE_BUNDLE))) {
        std::fprintf(stderr, "no pane bundle at %s\n", VANTOR_PANE_BUNDLE);
        return 1;
    }
    VTHistoryController *controller = VTHistoryController::create();
    const QString path = VTUtil::applicationSupportFolder() + QStringLiteral("/history.db");
    fill(path);

    sqlite3 *db = nullptr;
    sqlite3_open(QFile::encodeName(path).constData(), &db);
    QList<qint64> refresh, bare;
    for (int round = 0; round < kRounds; ++round) {
        QElapsedTimer timer;
        timer.start();
        controller->savingsNeedRefreshing({QStringLiteral("vantorSavingsChanged"), {}});
        // The refresh itself is queued behind the notification.
        QCoreApplication::sendPostedEvents(controller, QEvent::MetaCall);
        refresh.append(timer.nsecsElapsed());
        bare.append(bareQueries(db));
    }
    sqlite3_close(db);
    if (controller->historyArray()->rowCount() != kRecords - kRecords / 10 + 1) {
        std::fprintf(stderr, "unexpected row count %d\n", controller->historyArray()->rowCount());
        return 1;
    }
    std::sort(refresh.begin(), refresh.end());
    std::sort(bare.begin(), bare.end());
    const double refreshMs = refresh.at(kRounds / 2) / 1e6;
    const double bareMs = bare.at(kRounds / 2) / 1e6;
    std::printf("bare queries: %.2f ms (median)\n", bareMs);
    std::printf("RESULT history-refresh %.2f ms ratio=%.2f\n", refreshMs, refreshMs / bareMs);
    return 0;
}
