#include "Symbolizer.h"

#include <cxxabi.h>
#include <dwarf.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwelf.h>
#include <elfutils/libdwfl.h>
#include <errno.h>
#include <fcntl.h>
#include <gelf.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

namespace zulog {

namespace {

char* gDebuginfoPath = nullptr;  // the default places (".debug", "/usr/lib/debug")

const Dwfl_Callbacks kCallbacks = {
    dwfl_build_id_find_elf,
    dwfl_standard_find_debuginfo,
    dwfl_offline_section_address,
    &gDebuginfoPath,
};

bool isFile(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// The name of a function's DIE: its linkage name demangled, else its plain name;
// both looked up through an abstract origin or a declaration.
std::string functionName(Dwarf_Die* die) {
  Dwarf_Attribute attr;
  for (int name : {DW_AT_linkage_name, DW_AT_MIPS_linkage_name}) {
    if (dwarf_attr_integrate(die, name, &attr) != nullptr) {
      if (const char* s = dwarf_formstring(&attr)) return demangle(s);
    }
  }
  if (dwarf_attr_integrate(die, DW_AT_name, &attr) != nullptr) {
    if (const char* s = dwarf_formstring(&attr)) return s;
  }
  return "";
}

// Where an inlined function was called from, in the function around it.
bool callSite(Dwarf_Die* cu, Dwarf_Die* inlined, SourceFrame* out) {
  Dwarf_Attribute attr;
  Dwarf_Word file = 0, line = 0, column = 0;
  if (dwarf_attr(inlined, DW_AT_call_file, &attr) == nullptr || dwarf_formudata(&attr, &file) != 0)
    return false;
  if (dwarf_attr(inlined, DW_AT_call_line, &attr) != nullptr) dwarf_formudata(&attr, &line);
  if (dwarf_attr(inlined, DW_AT_call_column, &attr) != nullptr) dwarf_formudata(&attr, &column);
  Dwarf_Files* files = nullptr;
  size_t count = 0;
  if (dwarf_getsrcfiles(cu, &files, &count) != 0 || file >= count) return false;
  const char* name = dwarf_filesrc(files, file, nullptr, nullptr);
  out->file = name != nullptr ? name : "";
  out->line = static_cast<int>(line);
  out->column = static_cast<int>(column);
  return true;
}

}  // namespace

std::string demangle(const char* name) {
  if (name == nullptr) return "";
  int status = 0;
  char* plain = abi::__cxa_demangle(name, nullptr, nullptr, &status);
  if (plain == nullptr) return name;
  std::string out = plain;
  free(plain);
  return out;
}

bool readBuildId(const std::string& file, std::string* buildId, std::string* error) {
  buildId->clear();
  const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *error = strerror(errno);
    return false;
  }
  elf_version(EV_CURRENT);
  Elf* elf = elf_begin(fd, ELF_C_READ_MMAP, nullptr);
  const bool ok = elf != nullptr && elf_kind(elf) == ELF_K_ELF;
  if (!ok) {
    *error = elf != nullptr ? "not an ELF file" : elf_errmsg(-1);
  } else {
    const void* bits = nullptr;
    const ssize_t n = dwelf_elf_gnu_build_id(elf, &bits);
    static const char kHex[] = "0123456789abcdef";
    for (ssize_t i = 0; i < n; ++i) {
      const unsigned char b = static_cast<const unsigned char*>(bits)[i];
      *buildId += kHex[b >> 4];
      *buildId += kHex[b & 15];
    }
  }
  if (elf != nullptr) elf_end(elf);
  close(fd);
  return ok;
}

struct Symbolizer::Module {
  Dwfl* dwfl = nullptr;
  Dwfl_Module* mod = nullptr;
  std::string file;
  std::string problem;
  std::vector<std::string> notes;  // files passed over, or taken unchecked
  ~Module() {
    if (dwfl != nullptr) dwfl_end(dwfl);
  }
};

Symbolizer::Symbolizer(std::vector<std::string> symbolDirs) : mDirs(std::move(symbolDirs)) {}
Symbolizer::~Symbolizer() = default;

Symbolizer::Module& Symbolizer::module(const std::string& modulePath, const std::string& buildId) {
  const std::string key = modulePath + '\n' + buildId;
  auto it = mModules.find(key);
  if (it != mModules.end()) return *it->second;
  auto m = std::make_unique<Module>();
  std::vector<std::string> candidates;
  for (const std::string& dir : mDirs) {
    const std::string candidate = dir + (modulePath.empty() || modulePath[0] != '/' ? "/" : "") + modulePath;
    if (isFile(candidate)) candidates.push_back(candidate);
  }
  if (!modulePath.empty() && modulePath[0] == '/' && isFile(modulePath)) candidates.push_back(modulePath);
  size_t passedOver = 0;
  for (const std::string& candidate : candidates) {
    std::string found, error;
    // A file that is no ELF at all is taken, and said so below, as without a build ID.
    if (!buildId.empty() && readBuildId(candidate, &found, &error)) {
      if (found.empty()) {
        m->notes.push_back("note: " + modulePath + ": build ID " + buildId + " in the record, none in " +
                           candidate + ": used unchecked");
      } else if (found != buildId) {
        m->notes.push_back("warning: " + modulePath + ": build ID " + buildId + " in the record, " + found +
                           " in " + candidate + ": symbols not used");
        ++passedOver;
        continue;
      }
    }
    m->file = candidate;
    break;
  }
  if (m->file.empty() && passedOver > 0) {
    m->problem = "no file with the record's build ID: " + std::to_string(passedOver) +
                 (passedOver == 1 ? " file has" : " files have") + " another";
  } else if (m->file.empty()) {
    m->problem = "module not found" + std::string(mDirs.empty() ? "" : " in the symbol directories") +
                 " nor at its own path";
  } else {
    m->dwfl = dwfl_begin(&kCallbacks);
    if (m->dwfl != nullptr) {
      dwfl_report_begin(m->dwfl);
      // At bias 0 the module's addresses are the file's own virtual addresses.
      m->mod = dwfl_report_elf(m->dwfl, modulePath.c_str(), m->file.c_str(), -1, 0, true);
      dwfl_report_end(m->dwfl, nullptr, nullptr);
    }
    if (m->mod == nullptr) m->problem = std::string("not readable as ELF: ") + dwfl_errmsg(-1);
  }
  return *mModules.emplace(key, std::move(m)).first->second;
}

const std::vector<std::string>& Symbolizer::buildIdNotes(const std::string& modulePath,
                                                         const std::string& buildId) {
  return module(modulePath, buildId).notes;
}

uint64_t Symbolizer::pcTakenBack(const std::string& modulePath, const std::string& buildId) {
  Module& m = module(modulePath, buildId);
  if (m.mod == nullptr) return 0;
  GElf_Addr bias = 0;
  Elf* elf = dwfl_module_getelf(m.mod, &bias);
  GElf_Ehdr header;
  if (elf == nullptr || gelf_getehdr(elf, &header) == nullptr) return 0;
  switch (header.e_machine) {
    case EM_X86_64:
    case EM_386:
      return 1;  // any byte of the call instruction
    case EM_AARCH64:
      return 4;  // the call instruction itself
    default:
      return 0;
  }
}

Symbolized Symbolizer::lookup(const std::string& modulePath, uint64_t address, const std::string& buildId) {
  Symbolized out;
  Module& m = module(modulePath, buildId);
  out.moduleFile = m.file;
  if (m.mod == nullptr) {
    out.problem = m.problem;
    return out;
  }
  GElf_Off offset = 0;
  GElf_Sym sym;
  if (const char* name = dwfl_module_addrinfo(m.mod, address, &offset, &sym, nullptr, nullptr, nullptr)) {
    out.symbol = demangle(name);
    out.symbolOffset = offset;
  }

  Dwarf_Addr cfiBias = 0;
  if (Dwarf_CFI* cfi = dwfl_module_eh_cfi(m.mod, &cfiBias)) {
    Dwarf_Frame* frame = nullptr;
    if (dwarf_cfi_addrframe(cfi, address - cfiBias, &frame) == 0) {
      Dwarf_Addr start, end;
      bool signalp = false;
      dwarf_frame_info(frame, &start, &end, &signalp);
      out.signalFrame = signalp;
      free(frame);
    }
  }

  Dwarf_Addr bias = 0;
  Dwarf_Die* cu = dwfl_module_addrdie(m.mod, address, &bias);
  if (cu == nullptr) {
    if (out.symbol.empty()) {
      out.problem = "no symbol and no debug information at this address";
    } else {
      out.problem = "no debug information, symbol table only";
      SourceFrame f;
      f.function = out.symbol;
      out.frames.push_back(f);
    }
    return out;
  }
  SourceFrame at;
  if (Dwfl_Line* line = dwfl_module_getsrc(m.mod, address)) {
    Dwarf_Addr lineAddr;
    const char* file = dwfl_lineinfo(line, &lineAddr, &at.line, &at.column, nullptr, nullptr);
    at.file = file != nullptr ? file : "";
  }
  // The innermost scope at the address, then the DIEs that hold it in the tree: for
  // an inlined function the chain runs through the scopes it was inlined into.
  Dwarf_Die* scopes = nullptr;
  int n = dwarf_getscopes(cu, address - bias, &scopes);
  if (n > 0) {
    Dwarf_Die innermost = scopes[0];
    free(scopes);
    scopes = nullptr;
    n = dwarf_getscopes_die(&innermost, &scopes);
  }
  for (int i = 0; i < n; ++i) {
    const int tag = dwarf_tag(&scopes[i]);
    if (tag != DW_TAG_subprogram && tag != DW_TAG_inlined_subroutine) continue;
    at.function = functionName(&scopes[i]);
    // The outermost function's symbol carries its full signature.
    if (tag == DW_TAG_subprogram && !out.symbol.empty()) at.function = out.symbol;
    out.frames.push_back(at);
    if (tag == DW_TAG_subprogram) break;
    at = SourceFrame();
    if (!callSite(cu, &scopes[i], &at)) break;
  }
  free(scopes);
  if (out.frames.empty()) out.frames.push_back(at);
  if (out.frames.back().function.empty()) out.frames.back().function = out.symbol;
  return out;
}

}  // namespace zulog
