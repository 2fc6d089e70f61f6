// The welcome step's little picture: a file, a pointer that right-clicks it, and the context menu
// with "Lock with Corvane" highlighted, played in a slow loop. Main thread only.
#pragma once

#include <QTimer>
#include <QWidget>

namespace corvane::app {

class RightClickDemo : public QWidget {
    Q_OBJECT

public:
    explicit RightClickDemo(QWidget* parent = nullptr);

    // Stops on the frame with the menu open and the entry highlighted, for still pictures.
    void freeze();
    int frame() const { return frame_; }

    QSize sizeHint() const override { return {320, 150}; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    static constexpr int frameCount = 4;  // pointer moves, menu opens, entry lights up, pause
    QTimer timer_;
    int frame_ = 0;
};

}  // namespace corvane::app
