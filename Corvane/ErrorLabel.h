// Where a window says what went wrong: plain text (an error may quote a file name), wrapped, in
// red, and hidden until there is something to say. Main thread only.
#pragma once

#include <QLabel>

namespace corvane::app {

class ErrorLabel : public QLabel {
public:
    explicit ErrorLabel(QWidget* parent = nullptr);
};

}  // namespace corvane::app
