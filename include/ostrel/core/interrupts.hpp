#pragma once

// Stopping long operations. Rendering a large record as JSON, encoding a large JSON text and
// importing a large schema call the installed check now and then (about once per field, element
// or type); a check that throws ends the operation with its exception, which propagates to the
// caller like any other failure once the operation's objects are destroyed. A host that must
// answer a cancel request quickly (a database server) installs a check that throws when one is
// pending. Without a check, nothing is called.
//
// The check is process-wide and runs on the thread doing the work, so a host with many threads
// decides inside it which thread's work is to stop. It must not throw an ostrel::Error: the
// renderer turns those into the text of the field that failed and carries on.

namespace ostrel {

using InterruptCheck = void (*)();

// Installs `check` for every later operation; nullptr removes it. Safe to call from any thread.
void setInterruptCheck(InterruptCheck check) noexcept;

namespace detail {

// Calls the installed check, if any.
void pollInterrupt();

}  // namespace detail
}  // namespace ostrel
