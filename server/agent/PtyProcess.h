#pragma once
// One shell on a real pseudo-terminal: started with forkpty in a working directory, fed through the
// master side, read chunk by chunk with a switch for flow control, hung up and reaped at the end.
// The shell gets a clean environment (HOME, USER, LOGNAME, SHELL, PATH, LANG, LC_*, TERM, PWD and
// the extra entries), nothing else of the server's.
#include <QObject>
#include <QString>
#include <QStringList>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <sys/types.h>

class QSocketNotifier;
class QTimer;

namespace ostv::server {

class PtyProcess : public QObject {
    Q_OBJECT
public:
    struct Options {
        QString shell;           // program to run; started as a login shell ("-" + its base name)
        QString cwd;             // an existing directory (checked by start())
        int cols = 80;
        int rows = 24;
        QStringList extraEnv;    // "NAME=value" entries set on top of the shell's clean environment
    };

    // Largest chunk handed to onOutput at once.
    static constexpr size_t kReadChunk = 16 * 1024;
    // Input queued for the shell beyond which inputCongested() turns true, and the level below which
    // onInputDrained fires again.
    static constexpr size_t kInputHighWater = 1024 * 1024;
    static constexpr size_t kInputLowWater = 64 * 1024;

    // Starts the shell; on failure answers null and sets *error to a reason for the user.
    static std::unique_ptr<PtyProcess> start(const Options& options, QString* error);

    // Hangs up a shell that still runs; its reaping continues in the background.
    ~PtyProcess() override;

    pid_t pid() const { return pid_; }
    bool hasExited() const { return finished_; }

    // Queues bytes for the shell's input; written as fast as the terminal takes them.
    void write(std::string_view bytes);
    size_t pendingInput() const { return input_.size() - inputOffset_; }
    bool inputCongested() const { return pendingInput() > kInputHighWater; }

    // Sets the terminal's window size (the shell gets SIGWINCH). Out-of-range sizes are clamped.
    void resize(int cols, int rows);
    // The size the kernel reports for the terminal.
    std::pair<int, int> windowSize() const;

    // Flow control of the output: while disabled, the master side is not read, so the shell blocks
    // once the kernel's buffer is full.
    void setReadEnabled(bool enabled);
    bool readEnabled() const { return readEnabled_; }

    // Output of the shell, one chunk of at most kReadChunk bytes at a time. The receiver may call
    // setReadEnabled(false) from inside; no further chunk follows until it is enabled again.
    std::function<void(std::string_view)> onOutput;
    // The shell ended (after its last output was delivered). Called once; the receiver may destroy
    // the object from inside.
    std::function<void()> onExit;
    // Queued input fell below kInputLowWater after having been above kInputHighWater.
    std::function<void()> onInputDrained;

private:
    PtyProcess() = default;
    void onReadable();
    void onWritable();
    void pollChild();
    void finish();
    void closeMaster();

    pid_t pid_ = -1;
    int master_ = -1;
    bool readEnabled_ = true;
    bool eof_ = false;          // the master side reported end of file / EIO
    bool childReaped_ = false;  // waitpid has collected the shell
    bool finished_ = false;     // onExit was called
    bool wasCongested_ = false;
    std::string input_;
    size_t inputOffset_ = 0;
    QSocketNotifier* readNotifier_ = nullptr;
    QSocketNotifier* writeNotifier_ = nullptr;
    QTimer* pollTimer_ = nullptr;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

// Collects shells that were hung up: polls waitpid, and kills the process group of one that is still
// there after a grace period. drainAll() is for the program's exit.
class ChildReaper {
public:
    static void adopt(pid_t pid);
    // Waits up to timeoutMs for every adopted child, killing stragglers; answers how many remain.
    static int drainAll(int timeoutMs);
    static int pendingCount();
};

// The user's login shell: the passwd entry, else $SHELL, else /bin/sh.
QString defaultLoginShell();

}  // namespace ostv::server
