// Addresses of a module to functions and source lines, from the module's debug
// information through elfutils' libdwfl: the symbol table, the line table and the
// chain of inlined functions at the address.
#pragma once

#include <stdint.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace zulog {

struct SourceFrame {
  std::string function;  // demangled; empty when unknown
  std::string file;      // empty when there is no line information
  int line = 0, column = 0;
};

struct Symbolized {
  std::string moduleFile;  // the file read; empty when none was found
  std::string problem;     // why nothing (or little) was found
  std::string symbol;      // from the symbol table, demangled
  uint64_t symbolOffset = 0;
  // Innermost first: the inlined functions, then the function they were inlined into.
  std::vector<SourceFrame> frames;
  bool signalFrame = false;  // the address lies in a signal return trampoline
};

class Symbolizer {
 public:
  // A module "/vendor/lib64/libx.so" is looked for as DIR/vendor/lib64/libx.so in each
  // directory in turn (a symbols tree mirrors the device), then at its own path.
  //
  // With a build ID (lowercase hex, as a crash record's module list gives it) only a
  // file with that build ID is taken: one that has another is passed over for the next
  // place, and said so in `buildIdNotes`. A file without any build ID is taken
  // unchecked, also with a note.
  explicit Symbolizer(std::vector<std::string> symbolDirs);
  ~Symbolizer();
  Symbolizer(const Symbolizer&) = delete;
  Symbolizer& operator=(const Symbolizer&) = delete;

  // `address` is a virtual address of the module's file (its load bias taken off).
  Symbolized lookup(const std::string& modulePath, uint64_t address, const std::string& buildId = "");

  // How far the platform's unwinder takes a pc back from a return address into its
  // call instruction for the module's machine (1 on x86, 4 on arm64); 0 when the
  // module cannot be read or its machine is another.
  uint64_t pcTakenBack(const std::string& modulePath, const std::string& buildId = "");

  // One line for each file found for the module whose build ID is not `buildId`
  // ("warning: ...: symbols not used") or that has none ("note: ...: used unchecked").
  const std::vector<std::string>& buildIdNotes(const std::string& modulePath, const std::string& buildId);

 private:
  struct Module;
  Module& module(const std::string& modulePath, const std::string& buildId);
  std::vector<std::string> mDirs;
  std::map<std::string, std::unique_ptr<Module>> mModules;
};

std::string demangle(const char* name);

// The GNU build ID of an ELF file in lowercase hex: empty when it has none; false
// (with the reason in `error`) when the file cannot be read as ELF.
bool readBuildId(const std::string& file, std::string* buildId, std::string* error);

}  // namespace zulog
