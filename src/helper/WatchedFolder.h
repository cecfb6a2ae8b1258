#pragma once

#include "helper/FolderJob.h"
#include "helper/FolderReport.h"
#include "helper/SavingsTally.h"
#include "helper/SettleQueue.h"

#include <QObject>
#include <QString>
#include <QTimer>

// Everything the helper knows of one watched folder on btrfs, in one place on the main
// thread: the folder itself (held open, so it is followed wherever it moves on its file
// system), its figures, the changes waiting to settle, the work handed to the compression
// thread, and what the user has been told. Forgetting the folder is deleting this object:
// whatever it holds goes with it.
class WatchedFolder : public QObject
{
    Q_OBJECT
public:
    // fd: O_PATH, owned from now on.
    WatchedFolder(const JobTag &tag, int fd, const QString &path, QObject *parent = nullptr);
    ~WatchedFolder() override;

    const JobTag tag;
    const int fd;
    QString path;

    // As last written to its record.
    quint32 status = 0;
    quint64 savings = 0;

    SavingsTally tally;
    SettleQueue settle;
    // Jobs at the compression thread, queued or in hand, and of those the ones walking: while a
    // walk rebuilds the figures, the last ones written stand.
    int jobs = 0;
    int walking = 0;
    // The progress of the job in hand: its files, and those known or done.
    qsizetype files = 0;
    qsizetype filesDone = 0;
    // Looked through whole since the helper started: its files are all in the rescan cache.
    bool seenWhole = false;
    bool wholePass = false; // the job in hand looks through it whole
    // The disk is too full to go on: the folder waits, below 100, looking for room now and then.
    QTimer roomCheck;
    // The watch limit keeps part of it unwatched: looked through now and then instead.
    QTimer limitedRescan;
    // What the user has been told, once each.
    bool toldShared = false;
    bool toldWaiting = false;
    bool toldLimit = false;
    // Files and folders named as left alone, each for its reason: a later job names them again
    // only for another reason, or once their folder has gone and come back.
    QSet<FolderReport::Item> told;
    // Shared data was found since the user was last told, to be told once the folder is done.
    bool sharedFound = false;

    bool isWaitingForRoom() const { return roomCheck.isActive(); }
    // Work is queued, in hand, waiting to settle or waiting for room.
    bool hasWork() const { return jobs > 0 || !settle.isEmpty() || isWaitingForRoom(); }
    // The status to show: 100 only once nothing waits.
    quint32 currentStatus() const;
};
