#pragma once

// A load of the daemon's own loader within tarnctl: into a table that is empty at its beginning,
// and without the loader's messages, which are for the daemon's log and say less than tarnctl does.
//
// Threads: the main thread only, since the settings and the table are those of the whole process.

class LoadObserver;

namespace tarnctl {

class DaemonLoad {
  public:
    // Empties the event table, also of an entry that an earlier load has left pending. `observer`
    // is borrowed and may be null.
    explicit DaemonLoad(LoadObserver* observer = nullptr);
    // What was loaded stays.
    ~DaemonLoad();
    DaemonLoad(const DaemonLoad&) = delete;
    DaemonLoad& operator=(const DaemonLoad&) = delete;

  private:
    int m_level;  // of the log; back in force at the end
};

}  // namespace tarnctl
