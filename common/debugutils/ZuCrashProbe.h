// What a crash record holds after the frames (internal, not installed): the cause, the
// abort message, the sender, the registers, memory around the fault and the stack
// pointer, the modules the frames touch with their build IDs, and the other threads'
// frames. Everything is gathered with plain system calls into static memory.
#pragma once

#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <zudebug_platform/crash_support.h>

#include "ZuCrashRecord.h"

namespace zudebug {
namespace crash {

// Made ready outside any handler: the signal that asks other threads for their frames,
// and the pipe that tells readable memory where process_vm_readv is not to be had.
void prepareProbe();
// The signal gatherThreads() asks other threads with; 0 when there is none.
int peekSignal();

// Copies `n` bytes at `addr` without faulting; the count copied.
size_t safeRead(uintptr_t addr, void* out, size_t n);

// Gathers and writes what follows the header.
class Probe {
 public:
  void reset();
  // Finds the crashing thread's frames in the process's map, for addFrame() and
  // addModules().
  void placeFrames(const platform::CrashFrame* frames, size_t count);
  // Frame `index` without a symbol name: "#NN pc <rel>  <module>", numbered from #01.
  void addFrame(RecordWriter& w, size_t index);
  void addCause(RecordWriter& w, int signal, const siginfo_t* info, const void* context);
  void addAbortMessage(RecordWriter& w);
  void addSender(RecordWriter& w, const siginfo_t* info);
  void addRegisters(RecordWriter& w, const void* context);
  void addMemory(RecordWriter& w, const siginfo_t* info, const void* context);
  // Asks every other thread for its frames, waiting `budgetMs` at most; one catcher
  // at a time (false when another has it). Threads for which `crashing` says so are
  // in a catcher of their own, which keeps the signal that asks blocked: they are
  // listed, not asked.
  bool gatherThreads(int budgetMs, bool (*crashing)(int tid));
  void addModules(RecordWriter& w);
  void addThreads(RecordWriter& w);

  struct Data;
  Data* d = nullptr;
};

// One per catcher running at once.
Probe* takeProbe();
void giveBackProbe(Probe* probe);

}  // namespace crash
}  // namespace zudebug
