// Between the model and the session: whether the application may quit now, after locking what is
// open, or once the work that runs has finished. Main thread only.
#pragma once

#include <QObject>

#include "AppModel.h"
#include "Prompter.h"
#include "Task.h"

namespace corvane::app {

class AppDelegate : public QObject {
    Q_OBJECT

public:
    AppDelegate(AppModel& model, Prompter& prompter, QObject* parent = nullptr)
        : QObject(parent), model_(model), prompter_(prompter) {}

    // True when the application may end now: nothing runs and nothing is open, or the user
    // agreed and everything that could be locked was.
    Task<bool> shouldQuit();
    Task<bool> lockEverythingBeforeQuitting();

    // Asks shouldQuit() and quits the application when it says so; a second request while one
    // is being answered is ignored.
    void requestQuit();

    // Every open item locked quietly, as inactivity locks them, for the end of the session.
    // Items whose files are still in use are tried again for a few seconds while their programs
    // end too.
    Task<> lockForSessionEnd();
    // The application was told to stop: lockForSessionEnd(), then it quits without asking.
    void endSession();

private:
    AppModel& model_;
    Prompter& prompter_;
    bool answering_ = false;
    bool ending_ = false;
};

}  // namespace corvane::app
