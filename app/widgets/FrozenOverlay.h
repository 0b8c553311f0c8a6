#pragma once
#include <QLabel>
#include <QWidget>

namespace ostv {

// Covers the terminal area while no terminal tab exists.
class FrozenOverlay : public QWidget {
    Q_OBJECT
public:
    explicit FrozenOverlay(QWidget* parent = nullptr);
    QLabel* iconField() const { return iconField_; }
    QLabel* messageLabel() const { return messageLabel_; }
    QLabel* hintLabel() const { return hintLabel_; }
    void setMessage(const QString& text);
    void applyTheme();

protected:
    void paintEvent(QPaintEvent*) override;
    void changeEvent(QEvent*) override;

private:
    QLabel* iconField_;
    QLabel* messageLabel_;
    QLabel* hintLabel_;
};

}  // namespace ostv
