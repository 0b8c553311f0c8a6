#pragma once
#include <QDialog>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>

namespace ostv {

// Parses a port as typed: a decimal integer with an optional sign; empty or unparsable gives the default.
int64_t parsePortField(const QString& text, int64_t fallback);

// The server settings sheet. Saving always ends the current view and returns to the login screen.
class PreferencesViewController : public QDialog {
    Q_OBJECT
public:
    explicit PreferencesViewController(QWidget* parent = nullptr);

    QLineEdit* serverField;
    QLineEdit* quicPortField;
    QLineEdit* adminPortField;
    QLineEdit* passwordField;
    QLabel* statusLabel;
    QPushButton* saveButton;
    QPushButton* cancelButton;

    void loadSettings();
    void onSave();
    void onCancel();
    int returnDelayMs = 500;  // how long the saved message stays before the login screen comes back

protected:
    void changeEvent(QEvent* e) override;

private:
    enum class StatusKind { none, error, saved };
    void setStatus(const QString& text, StatusKind kind);
    void applyTheme();
    QList<QLabel*> rowLabels_;
    StatusKind statusKind_ = StatusKind::none;
};

}  // namespace ostv
