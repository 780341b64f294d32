#pragma once

// What the two Snort input channels have in common: a named FIFO, whose path is fixed, and a
// descriptor that is opened and closed many times. The class makes the FIFO, waits for data with a
// time limit, and closes it. Opening and reading belong to the derived classes, SnortEventReader
// and SnortErrorReader; each of their read operations begins by opening a closed FIFO, which is all
// the handling that a restart of Snort needs.
//
// The FIFO's file outlives the process: nothing ever unlinks it.
//
// Threads: no lock. Each reader is driven by one thread; the engine calls CreateFifo before it
// enters its own loop. WaitReadable lets a cancel of the thread land in its wait, whatever the
// thread's cancel state, and leaves a reader that its destructor closes.

#include <string>

class SnortReaderBase {
  public:
    // Copies the path and does not touch the file system.
    explicit SnortReaderBase(const char* path);

    // Closes the descriptor if it is open.
    virtual ~SnortReaderBase();

    SnortReaderBase(const SnortReaderBase&) = delete;
    SnortReaderBase& operator=(const SnortReaderBase&) = delete;

    // Makes sure that a FIFO exists at the path. True if one does; one that is already there is
    // kept as it is. False if it cannot be made or if something else has the path, which is
    // left alone.
    [[nodiscard]] bool CreateFifo();

    // Waits until the open descriptor can be read, for at most `timeoutSeconds`. Returns a positive
    // number when data or an exceptional condition is there, 0 on timeout, and -1 on failure, after
    // which the descriptor is closed. A signal that interrupts the wait is such a failure.
    [[nodiscard]] int WaitReadable(long timeoutSeconds);

    // Closes the descriptor.
    void Close();

  protected:
    const std::string m_path;
    int m_fd = -1;  // owned; -1 means closed
};
