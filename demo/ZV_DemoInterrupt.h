// How Ctrl-C stops the demo. The handler only notes the signal; the demo
// looks at the note between its steps, never inside a call into a module,
// and leaves by the exception below, which ends the run with one line,
// "Interrupted.", and exit status 128 + the signal (130 for Ctrl-C).
#pragma once

namespace zv_demo {

struct Interrupted
{
    int nSignal;
};

// Ctrl-C, SIGTERM, and a reader that goes away (`| head`).
void CatchInterrupts();

// Throws Interrupted once a signal has come.
void StopIfInterrupted();

// A stage of the demo begins. For tests: when ROOMCRATE_DEMO_INTERRUPT
// names this stage, the demo sends itself SIGINT here, as a person pressing
// Ctrl-C at that moment would.
void EnterStage(const char* pszStage);

} // namespace zv_demo
