#include "zdr/timing/dispatch_once.h"

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "zdr/runtime/dispatch_queue.h"

namespace zdr {

namespace {

struct OnceState {
    std::recursive_mutex monitor;
    // Tokens already run, in order; searched linearly, like the list it stands for.
    std::vector<std::string> tracker;
    // Completions of async callers waiting for an async block that has not
    // finished yet, by token.
    std::map<std::string, std::vector<std::function<void()>>> waiting;
};

OnceState& state() {
    // Never destroyed: once() may be called from static destructors.
    static OnceState* s = new OnceState;
    return *s;
}

bool contains(const std::vector<std::string>& tracker, const std::string& token) {
    return std::find(tracker.begin(), tracker.end(), token) != tracker.end();
}

void callAll(std::vector<std::function<void()>>& completions) {
    for (auto& completion : completions) {
        if (completion) completion();
    }
}

}  // namespace

std::string DispatchOnce::token(std::string_view file, std::string_view function, int line) {
    std::string result;
    result.reserve(file.size() + function.size() + 12);
    result.append(file).append(":").append(function).append(":").append(std::to_string(line));
    return result;
}

void DispatchOnce::once(const std::string& token, const std::function<void()>& block) {
    auto& s = state();
    std::lock_guard<std::recursive_mutex> guard(s.monitor);
    if (contains(s.tracker, token)) return;
    // Recorded before the block runs, so a nested once() with the same token
    // on this thread is a no-op.
    s.tracker.push_back(token);
    if (block) block();
}

void DispatchOnce::once(std::string_view file, std::string_view function, int line,
                        const std::function<void()>& block) {
    once(token(file, function, line), block);
}

void DispatchOnce::onceAsync(const std::string& token, AsyncBlock block,
                             std::function<void()> completion) {
    auto& s = state();
    bool run = false;
    {
        std::lock_guard<std::recursive_mutex> guard(s.monitor);
        if (!contains(s.tracker, token)) {
            s.tracker.push_back(token);
            s.waiting[token].push_back(std::move(completion));
            run = true;
        } else if (auto it = s.waiting.find(token); it != s.waiting.end()) {
            it->second.push_back(std::move(completion));
            return;
        }
    }
    if (!run) {
        // Already finished: still answer asynchronously, like a fresh run would.
        if (completion) DispatchQueue::global().async(std::move(completion));
        return;
    }
    DispatchQueue::global().async([token, block = std::move(block)] {
        // `done` may be called from any thread, at most once counts.
        auto finished = std::make_shared<std::once_flag>();
        auto done = [token, finished] {
            std::call_once(*finished, [&] {
                std::vector<std::function<void()>> completions;
                {
                    auto& st = state();
                    std::lock_guard<std::recursive_mutex> guard(st.monitor);
                    auto it = st.waiting.find(token);
                    if (it != st.waiting.end()) {
                        completions = std::move(it->second);
                        st.waiting.erase(it);
                    }
                }
                callAll(completions);
            });
        };
        if (block) {
            block(done);
        } else {
            done();
        }
    });
}

void DispatchOnce::onceAsync(std::string_view file, std::string_view function, int line,
                             AsyncBlock block, std::function<void()> completion) {
    onceAsync(token(file, function, line), std::move(block), std::move(completion));
}

}  // namespace zdr
