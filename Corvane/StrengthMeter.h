// A bar and a word that say how strong the password being typed looks, as the core rates it. It
// advises only: the password rules alone decide what is accepted. Main thread only.
#pragma once

#include <QWidget>

class QLabel;
class QProgressBar;

namespace corvane::app {

class StrengthMeter : public QWidget {
    Q_OBJECT

public:
    explicit StrengthMeter(QWidget* parent = nullptr);

    // Empty text clears the meter.
    void setPassword(const QString& password);
    QString label() const;

private:
    QProgressBar* bar_;
    QLabel* label_;
};

}  // namespace corvane::app
