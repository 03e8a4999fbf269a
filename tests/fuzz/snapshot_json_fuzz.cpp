// Feeds arbitrary bytes as the existing JSON collection file, adds one record, and
// checks that the file left behind is valid JSON holding that record last in its session.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <errno.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>

#include <rapidjson/document.h>

#include "PRAXDiagnostician.h"
#include "ZuDebugUtils.h"

namespace {

std::string gJsonPath;
std::string gRoot;

void removeRoot() {
  unlink(gJsonPath.c_str());
  for (const char* dir : {"/data/vendor/camera", "/data/vendor", "/data", ""}) rmdir((gRoot + dir).c_str());
}

std::string readAll(const std::string& path) {
  std::string text;
  FILE* f = fopen(path.c_str(), "rb");
  if (f == nullptr) return text;
  char buf[65536];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), f)) > 0) text.append(buf, n);
  fclose(f);
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  (void)argc;
  // The library maps device paths below ZUDEBUG_ROOT, read once at load: without one,
  // run again inside a throw-away root so nothing lands in the real /data, and remove
  // that root once the run is over.
  const char* root = getenv("ZUDEBUG_ROOT");
  if (root == nullptr || root[0] == '\0') {
    char tmpl[] = "/tmp/zudebug-fuzz-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) abort();
    pid_t pid = fork();
    if (pid < 0) abort();
    if (pid == 0) {
      setenv("ZUDEBUG_ROOT", tmpl, 1);
      execv("/proc/self/exe", *argv);
      _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    gRoot = tmpl;
    gJsonPath = gRoot + "/data/vendor/camera/praxErrorSnapdump.json";
    removeRoot();
    if (WIFSIGNALED(status)) {
      signal(WTERMSIG(status), SIG_DFL);
      raise(WTERMSIG(status));
    }
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
  }
  gRoot = root;
  for (const char* dir : {"/data", "/data/vendor", "/data/vendor/camera"}) mkdir((gRoot + dir).c_str(), 0755);
  gJsonPath = gRoot + "/data/vendor/camera/praxErrorSnapdump.json";
  zudebug::gZuCamLogGroup = 0;  // every call logs the whole file; keep the run quiet
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FILE* f = fopen(gJsonPath.c_str(), "wb");
  if (f == nullptr) abort();
  fwrite(data, 1, size, f);
  fclose(f);

  timespec t{};
  auto record = std::make_shared<zudebug::SnapshotRecord>("u-1", 1, 2, "fuzz", 0, t, nullptr);
  record->snapshotInfo.allFrames = {1, 2};
  record->snapshotInfo.nodeProcTime["SR"] = -1;
  zudebug::writeSnapshotInfoToJsonFile(record);

  const std::string out = readAll(gJsonPath);
  rapidjson::Document doc;
  doc.Parse<rapidjson::kParseValidateEncodingFlag>(out.data(), out.size());
  if (doc.HasParseError() || !doc.IsObject()) abort();
  auto session = doc.FindMember("u-1");
  if (session == doc.MemberEnd() || !session->value.IsArray() || session->value.Empty()) abort();
  const auto& last = session->value[session->value.Size() - 1];
  if (!last.IsObject() || !last.HasMember("imageName") || !last["imageName"].IsString() ||
      strcmp(last["imageName"].GetString(), "fuzz") != 0)
    abort();
  return 0;
}
