// DispatchOnce: run a block at most once per process for a given text token.
//
// The token is recorded before its block runs, so a block that calls once()
// with its own token on the same thread does not run twice, and a second
// thread asking for a token whose block is running waits until it has finished.
// One process-wide recursive monitor covers every token: long blocks hold up
// all other once() calls. Tokens are never forgotten.
//
// Threads: callable from any thread. once() runs its block on the calling
// thread before returning. onceAsync() runs its block on a global queue and
// calls the completion on the thread where the block signalled it was done
// (or on a global queue when the token had already been used).
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace zdr {

class DispatchOnce {
 public:
    /// An asynchronous block: it calls `done` exactly once when it has finished.
    using AsyncBlock = std::function<void(std::function<void()> done)>;

    /// Runs `block` unless a block for `token` already ran (or is running).
    static void once(const std::string& token, const std::function<void()>& block);
    /// once() with the token file + ":" + function + ":" + decimal line.
    static void once(std::string_view file, std::string_view function, int line,
                     const std::function<void()>& block);

    /// Asynchronous form: when `token` is new, `block` starts on a global queue
    /// and `completion` is called once it has called its `done`. When the
    /// token's block already finished, `completion` is called without running
    /// anything; when it is still running, `completion` waits for it. Async and
    /// synchronous forms share one table of tokens.
    static void onceAsync(const std::string& token, AsyncBlock block,
                          std::function<void()> completion = nullptr);
    static void onceAsync(std::string_view file, std::string_view function, int line,
                          AsyncBlock block, std::function<void()> completion = nullptr);

    /// The token of the file/function/line forms.
    static std::string token(std::string_view file, std::string_view function, int line);
};

/// once() keyed by the call site.
#define ZDR_DISPATCH_ONCE(block) ::zdr::DispatchOnce::once(__FILE__, __func__, __LINE__, (block))

}  // namespace zdr
