// The small floating window that shows what a long operation is doing: a bar (moving, or bytes
// done once they are known), the step's sentence and "Cancel". Main thread only.
#pragma once

#include <QWidget>

#include "ProgressDisplay.h"

class QLabel;
class QProgressBar;
class QPushButton;

namespace corvane::app {

class ProgressWindow : public QWidget, public ProgressDisplay {
    Q_OBJECT

public:
    explicit ProgressWindow(QWidget* parent = nullptr);

    void show(const std::string& message, std::function<void()> onCancel) override;
    void showBytes(std::int64_t done, std::int64_t total) override;
    void close() override;

    QString message() const;
    // What the bar says: empty while it only moves, else "12.3 MB of 45.6 MB".
    QString barText() const;
    bool determinate() const;

private:
    // The message on one line, shortened in the middle when it does not fit.
    void showMessage();

    QProgressBar* bar_;
    QLabel* message_;
    QLabel* bytes_;
    QString fullMessage_;
    QPushButton* cancel_;
    std::function<void()> onCancel_;
    bool placed_ = false;
};

}  // namespace corvane::app
