// Desktop notifications: what the model tells the user without asking anything. Posting never
// fails, whether or not a notification service runs. Main thread only.
#pragma once

#include <string>

namespace corvane::app {

class Notifier {
public:
    virtual ~Notifier() = default;

    // A new notification.
    virtual void post(const std::string& title, const std::string& body) = 0;
    // Replaces the notification posted earlier under the same identifier, if it is still shown.
    virtual void postIfAllowed(const std::string& identifier, const std::string& title,
                               const std::string& body) = 0;
};

}  // namespace corvane::app
