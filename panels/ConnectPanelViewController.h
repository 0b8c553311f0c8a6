#pragma once
// The small sheet through which the user pairs with an agent by its six-digit code, picks the remote
// working directory of a new session, names this controller and edits the directory's environment
// variables. The workspace presents it, is its delegate and reports the pairing and path-check
// outcomes back to it.
#include <QDialog>
#include <QLabel>
#include <QLineEdit>
#include <QList>
#include <QPointer>
#include <QPushButton>
#include <QScrollArea>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>
#include <optional>

#include "EnvStore.h"
#include "SessionInterfaces.h"
#include "WeakDelegate.h"

class QVariantAnimation;

namespace ostv {

class ConnectPanelViewController;

// What the panel is opened for; fixed at creation.
struct ConnectPanelMode {
    enum class Kind { newSession, editSession, newHost };
    Kind kind = Kind::newHost;
    QString code;                      // newSession, editSession
    std::optional<QString> homeDir;    // newSession
    QString cwd;                       // editSession
    std::optional<QString> agentOS;    // newSession, editSession
    std::optional<QString> machineId;  // newSession, editSession

    static ConnectPanelMode newSession(const QString& code, std::optional<QString> homeDir,
                                       std::optional<QString> agentOS, std::optional<QString> machineId);
    static ConnectPanelMode editSession(const QString& code, const QString& cwd, std::optional<QString> agentOS,
                                        std::optional<QString> machineId);
    static ConnectPanelMode newHost();
};

// Implemented by the workspace.
class ConnectPanelDelegate {
public:
    virtual ~ConnectPanelDelegate() = default;
    virtual void connectPanelDidRequestPairWithCode(ConnectPanelViewController* panel, const QString& code,
                                                    const QString& nickname) = 0;
    // The workspace fields the panel sets and reads.
    virtual void setCurrentConnectPanel(ConnectPanelViewController* panel) = 0;
    virtual void setPendingPathValidation(bool pending) = 0;
    virtual void setPendingAutoCreate(bool pending) = 0;
    virtual void setPendingEnvCommands(const std::optional<QString>& commands) = 0;
    virtual bool isConnected() const = 0;
    virtual void allocateAndCreatePty(const QString& title, const std::optional<QString>& command,
                                      const std::optional<QString>& envCommands, const QString& sessionPath) = 0;
};

// A small turning arc shown while the pairing runs.
class ActivitySpinner : public QWidget {
    Q_OBJECT
public:
    explicit ActivitySpinner(QWidget* parent = nullptr);
    void startAnimation();
    void stopAnimation();
    bool isAnimating() const { return timer_.isActive(); }

protected:
    void paintEvent(QPaintEvent*) override;

private:
    QTimer timer_;
    int angle_ = 0;
};

// One key/value row of the environment editor.
struct EnvRowView {
    QWidget* view = nullptr;
    QLineEdit* keyField = nullptr;
    QLineEdit* valueField = nullptr;
    QToolButton* deleteButton = nullptr;
};

class ConnectPanelViewController : public QDialog {
    Q_OBJECT
public:
    // The panel deletes itself once closed (each presentation makes a new one).
    explicit ConnectPanelViewController(const ConnectPanelMode& mode, QWidget* parent = nullptr);
    ~ConnectPanelViewController() override;

    void setDelegate(ConnectPanelDelegate* d) { delegate_.set(d); }
    // The relay link through which the path check and the first listing are sent.
    void setLink(RelayLink* link) { link_.set(link); }
    // Shows the panel as a window-modal sheet over its parent.
    void present();

    const ConnectPanelMode& mode() const { return mode_; }
    bool isPaired() const { return isPaired_; }
    const std::optional<QString>& agentOS() const { return agentOS_; }

    // Reported by the workspace.
    void pairDidSucceed(const std::optional<QString>& homeDir, const std::optional<QString>& agentOS);
    void pairDidFail(const QString& message);
    void pathValidated(bool exists);

    // User actions.
    void onPair();
    void onConfirm();
    void onCancel();
    void onAddEnvRow();
    void onDeleteEnvRow(QWidget* rowView);
    void onToggleEnv();
    void updatePairButton();

    // The environment rows (stored per agent and directory).
    std::optional<QString> envStorageKey() const;
    QList<EnvRow> envRowValues() const;
    QVariantList serializeEnvVars() const;
    void saveEnvVars();
    void loadSavedEnvVars();
    std::optional<QString> gatherEnvCommands() const;

    // The path format check of the path field for the agent's system; none when it passes.
    std::optional<QString> validatePathFormat() const;

    bool isEnvExpanded() const { return isEnvExpanded_; }
    // How long a pairing may take before it is given up (10 s; tests shorten it).
    void setPairTimeoutMs(int ms) { pairTimeoutMs_ = ms; }
    QTimer* pairTimeoutTimer() const { return pairTimeoutTimer_; }

    static constexpr int expandedHeight = 480;
    static constexpr int expandedRowsHeight = 130;
    static constexpr int collapsedHeight = 290;

    QLabel* titleLabel;
    QLineEdit* codeField;
    QLabel* codeLabel;
    QPushButton* pairButton;
    QLabel* pairStatusLabel;
    QLineEdit* nicknameField;
    QLabel* nicknameLabel;
    QLabel* pathLabel;
    QLineEdit* pathField;
    QPushButton* cancelButton;
    QPushButton* confirmButton;
    QLabel* statusLabel;
    QToolButton* envDisclosure;
    QLabel* envHintLabel;
    QScrollArea* envScrollView;
    QVBoxLayout* envStack;
    QPushButton* addEnvButton;
    QList<EnvRowView> envRows;
    ActivitySpinner* pairSpinner;

public slots:
    void done(int result) override;

protected:
    void changeEvent(QEvent* e) override;

private:
    void buildControls();
    void configureForMode();
    void proceedWithConfirm();
    void closePanel();
    void setEnvExpanded(bool expanded, bool animated);
    void applyEnvHeights(double t);
    void setStatus(QLabel* label, const QString& text, const QColor& color);
    void setFieldEditable(QLineEdit* field, bool editable);
    void sendListing(const QString& path);
    void applyTheme();

    WeakDelegate<ConnectPanelDelegate> delegate_;
    WeakDelegate<RelayLink> link_;
    ConnectPanelMode mode_;
    bool isPaired_ = false;
    std::optional<QString> agentOS_;
    QPointer<QTimer> pairTimeoutTimer_;
    int pairTimeoutMs_ = 10000;
    bool isEnvExpanded_ = false;
    bool closed_ = false;
    QVariantAnimation* envAnimation_ = nullptr;
    QWidget* envRowsHost_ = nullptr;
};

}  // namespace ostv
