#pragma once
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QWidget>

namespace ostv {

// The password field shows only "●"; typed or pasted characters arrive unmasked and are appended to the
// real password, a shorter text cuts the password to that length (deleting anywhere removes from the
// end). Returns the new field text.
QString applyPasswordEdit(const QString& fieldText, QString& password);

class LoginViewController : public QWidget {
    Q_OBJECT
public:
    explicit LoginViewController(QWidget* parent = nullptr);

    QLineEdit* hostField;
    QLineEdit* userField;
    QLineEdit* passField;
    QLabel* errorLabel;
    QPushButton* loginButton;
    QLabel* versionLabel;
    QString realPassword;
    bool isLoading = false;

    void onLoginClicked();
    void applyTheme();

protected:
    void showEvent(QShowEvent* e) override;
    void paintEvent(QPaintEvent* e) override;
    void changeEvent(QEvent* e) override;

private:
    void prefillDefaults();
    void updateLoadingState();
    void controlTextDidChange(const QString& text);
    QWidget* card_ = nullptr;
    QLabel* brandIcon_ = nullptr;
    QLabel* subtitle_ = nullptr;
    QLabel* tagline_ = nullptr;
    QLabel* brandText_ = nullptr;
    bool focused_ = false;
};

}  // namespace ostv
