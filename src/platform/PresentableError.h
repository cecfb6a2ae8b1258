#pragma once

#include <QString>

// An error as the application presents it to the user: which part of the system failed
// (domain and code), what happened, and why. The one error type of our libraries; the store
// reports it, the alerts show it.
struct PresentableError {
    QString domain;
    int code = 0;
    QString localizedDescription;
    QString failureReason;
};
