// A private GLib main context made the calling thread's default for the lifetime of this object,
// so that the callbacks a call arranges (signals, async replies, timers) run only while that call
// iterates it, never in whatever loop the caller runs.
#pragma once

#include <gio/gio.h>

namespace corvane {

class ThreadMainContext {
public:
    ThreadMainContext() : context_(g_main_context_new()) {
        g_main_context_push_thread_default(context_);
    }
    ~ThreadMainContext() {
        // Sources still queued (a signal that came after its subscription ended) hold references
        // that are dropped only when dispatched or destroyed with the context.
        while (g_main_context_iteration(context_, FALSE)) {
        }
        g_main_context_pop_thread_default(context_);
        g_main_context_unref(context_);
    }
    ThreadMainContext(const ThreadMainContext&) = delete;
    ThreadMainContext& operator=(const ThreadMainContext&) = delete;

    GMainContext* get() const { return context_; }

private:
    GMainContext* context_;
};

}  // namespace corvane
