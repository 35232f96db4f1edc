// The tool never loses a recording or leaves a half-written output: outputs
// that are inputs, failed and unsupported conversions, links, colliding
// names, nested folders and interrupted runs.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <random>
#include <thread>

#include "batch_plan.h"
#include "output_file.h"
#include "quillon/audio_format.h"
#include "test_support.h"

namespace fs = std::filesystem;
using namespace TAV;
using quillon::test::readFile;

namespace {

class ToolSafety : public ::testing::Test {
 protected:
  void SetUp() override {
    dir = fs::temp_directory_path() / ("quillon-safety-" + std::to_string(::getpid()) + "-" +
                                       ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir);
    fs::create_directories(dir);
  }
  void TearDown() override { fs::remove_all(dir); }

  // Run in the test's folder, so that whatever the tool writes by a relative
  // name is checked and removed with it.
  std::string shellCommand(const std::string& args) const {
    return "cd " + dir.string() + " && exec " + QUILLON_TOOL_PATH + " " + args + " >" + (dir / "stdout.txt").string() + " 2>" +
           (dir / "stderr.txt").string();
  }
  // Runs the tool; returns its exit status (stdout and stderr in `out` and `err`).
  int run(const std::string& args) {
    const int status = std::system(shellCommand(args).c_str());
    out = text(dir / "stdout.txt");
    err = text(dir / "stderr.txt");
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // Starts the tool without waiting for it.
  pid_t start(const std::string& args) {
    const std::string command = shellCommand(args);
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    return pid;
  }
  // Waits at most `seconds` for `pid`; its exit status, or -1 (and the
  // process is killed) if it did not end or ended by a signal.
  int finish(pid_t pid, int seconds = 120) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    int status = 0;
    while (::waitpid(pid, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
        return -1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    out = text(dir / "stdout.txt");
    err = text(dir / "stderr.txt");
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // Polls until a temporary ".part" file exists under `folder`; false after 60 s.
  bool waitForPart(const fs::path& folder, pid_t pid) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < deadline) {
      if (!partFiles(folder).empty()) return true;
      int status;
      if (::waitpid(pid, &status, WNOHANG) != 0) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
  }
  static std::vector<fs::path> partFiles(const fs::path& folder) {
    std::vector<fs::path> parts;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(folder, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec))
      if (it->path().extension() == ".part") parts.push_back(it->path());
    return parts;
  }

  static std::string text(const fs::path& p) {
    const std::vector<uint8_t> b = readFile(p);
    return std::string(b.begin(), b.end());
  }
  static void writeBytes(const fs::path& p, const std::string& bytes) {
    std::ofstream(p, std::ios::binary) << bytes;
  }
  // An A-law WAVE file of `n` samples.
  static void writeAlawWave(const fs::path& p, size_t n) {
    WaveHeader h{};
    AudioFormat(CT_G711_ALAW, 1).fillWaveHeader(h, static_cast<uint32_t>(n));
    std::string bytes(reinterpret_cast<const char*>(&h), sizeof h);
    bytes.append(n, static_cast<char>(0xd5));
    writeBytes(p, bytes);
  }
  // A 16-bit 8 kHz mono WAVE file of `n` samples of noise.
  static void writePcmWave(const fs::path& p, size_t n) {
    WaveHeader h{};
    AudioFormat(CT_PCM16, 1).fillWaveHeader(h, static_cast<uint32_t>(2 * n));
    std::string bytes(reinterpret_cast<const char*>(&h), sizeof h);
    std::mt19937 random(7);
    for (size_t i = 0; i < n; i++) {
      const int16_t s = static_cast<int16_t>(random() % 8000) - 4000;
      bytes.push_back(static_cast<char>(s & 0xff));
      bytes.push_back(static_cast<char>((s >> 8) & 0xff));
    }
    writeBytes(p, bytes);
  }
  // `seconds` of G.729 frames of random bits: every frame decodes.
  static void writeG729(const fs::path& p, size_t seconds) {
    std::mt19937 random(11);
    std::string bytes(seconds * 1000, '\0');
    for (char& c : bytes) c = static_cast<char>(random());
    writeBytes(p, bytes);
  }

  fs::path dir;
  std::string out, err;
};

TEST_F(ToolSafety, RefusesAnOutputThatIsTheInput) {
  writeAlawWave(dir / "call.wav", 8000);
  writePcmWave(dir / "pcm.wav", 8000);
  writeBytes(dir / "note.txt", "caf\xC3\xA9\n");
  fs::create_symlink("call.wav", dir / "call-link.wav");
  fs::create_hard_link(dir / "call.wav", dir / "call-hard.wav");
  fs::create_symlink("pcm.wav", dir / "pcm-link.wav");
  fs::create_hard_link(dir / "note.txt", dir / "note-hard.txt");
  const std::string call = text(dir / "call.wav"), pcm = text(dir / "pcm.wav"), note = text(dir / "note.txt");
  const std::string d = dir.string() + "/";
  for (const char* output : {"call.wav", "call-link.wav", "call-hard.wav"}) {
    EXPECT_EQ(run("decode " + d + "call.wav " + d + output), 2) << output;
    EXPECT_NE(err.find("is the input"), std::string::npos) << err;
    // The input given through the link, the output by its own name.
    EXPECT_EQ(run("decode --codec alaw " + d + output + " " + d + "call.wav"), 2) << output;
  }
  for (const char* output : {"pcm.wav", "pcm-link.wav"})
    EXPECT_EQ(run("encode --codec alaw " + d + "pcm.wav " + d + output), 2) << output;
  for (const char* output : {"note.txt", "note-hard.txt"})
    EXPECT_EQ(run("text --from UTF-8 --to latin1 " + d + "note.txt " + d + output), 2) << output;
  EXPECT_EQ(text(dir / "call.wav"), call);
  EXPECT_EQ(text(dir / "pcm.wav"), pcm);
  EXPECT_EQ(text(dir / "note.txt"), note);
  EXPECT_TRUE(fs::is_symlink(dir / "call-link.wav"));
  EXPECT_TRUE(partFiles(dir).empty());
}

TEST_F(ToolSafety, FailedConversionsLeaveExistingOutputsAlone) {
  const std::string d = dir.string() + "/";
  writeBytes(dir / "short.bin", "abcdefg");
  writeBytes(dir / "out.wav", "an earlier output");
  EXPECT_EQ(run("decode " + d + "short.bin " + d + "out.wav"), 1) << "not a known container";
  EXPECT_EQ(run("decode --codec g729 " + d + "short.bin " + d + "out.wav"), 1) << "not a whole frame";
  EXPECT_EQ(text(dir / "out.wav"), "an earlier output");
  EXPECT_EQ(run("decode --codec g729 " + d + "short.bin " + d + "new.wav"), 1);
  EXPECT_FALSE(fs::exists(dir / "new.wav"));

  // A byte that is not UTF-8 stops the conversion: the file is not written.
  writeBytes(dir / "in.txt", "ok \xFF\n");
  writeBytes(dir / "out.txt", "an earlier text");
  EXPECT_EQ(run("text --from UTF-8 --to latin1 " + d + "in.txt " + d + "out.txt"), 1);
  EXPECT_EQ(text(dir / "out.txt"), "an earlier text");
  EXPECT_TRUE(partFiles(dir).empty());

  // A successful decode replaces the output.
  writeAlawWave(dir / "call.wav", 800);
  EXPECT_EQ(run("decode " + d + "call.wav " + d + "out.wav"), 0) << err;
  EXPECT_EQ(fs::file_size(dir / "out.wav"), 44u + 1600u);
}

TEST_F(ToolSafety, RefusesDirectionsTheBuildDoesNotServe) {
  const std::string d = dir.string() + "/";
  writeAlawWave(dir / "call.wav", 8000);
  writePcmWave(dir / "pcm.wav", 8000);
  EXPECT_EQ(run("decode --codec msadpcm " + d + "call.wav " + d + "o.wav"), 2);
  EXPECT_NE(err.find("alaw"), std::string::npos) << "the message names what can be decoded: " << err;
  EXPECT_FALSE(fs::exists(dir / "o.wav"));
  for (const char* codec : {"tetra", "silk-20", "opus"}) {
    EXPECT_EQ(run(std::string("encode --codec ") + codec + " " + d + "pcm.wav " + d + "o.bin"), 2) << codec;
    EXPECT_NE(err.find("g729"), std::string::npos) << "the message names what can be encoded: " << err;
    EXPECT_FALSE(fs::exists(dir / "o.bin")) << codec;
  }
  fs::create_directories(dir / "in");
  writeAlawWave(dir / "in" / "a.wav", 800);
  EXPECT_EQ(run("batch --codec msadpcm " + d + "in " + d + "out"), 2);
  EXPECT_FALSE(fs::exists(dir / "out" / "a.wav"));
}

TEST_F(ToolSafety, ChecksArguments) {
  const std::string d = dir.string() + "/";
  writeAlawWave(dir / "call.wav", 800);
  EXPECT_EQ(run("decode --codec alaw --rate 16000 " + d + "call.wav " + d + "o.wav"), 2);
  EXPECT_EQ(run("decode --rate 16000 " + d + "call.wav " + d + "o.wav"), 2) << "the rate does not fit the file's codec";
  EXPECT_EQ(run("decode --codec 7 " + d + "call.wav " + d + "o.wav"), 2);
  EXPECT_EQ(run("encode --codec 99 " + d + "call.wav " + d + "o.wav"), 2);
  EXPECT_FALSE(fs::exists(dir / "o.wav"));
  EXPECT_EQ(run("decode --codec ALaw " + d + "call.wav " + d + "o.wav"), 0) << err;
  EXPECT_EQ(fs::file_size(dir / "o.wav"), 44u + 1600u);
  fs::create_directories(dir / "folder");
  EXPECT_EQ(run("decode " + d + "folder " + d + "f.wav"), 2);
  EXPECT_NE(err.find("folder"), std::string::npos) << err;
  EXPECT_EQ(run("probe " + d + "folder"), 2);
  EXPECT_EQ(run("decode " + d + "call.wav " + d + "folder"), 2);
  EXPECT_FALSE(fs::exists(dir / "f.wav"));
  EXPECT_TRUE(fs::is_empty(dir / "folder"));
}

TEST_F(ToolSafety, DashWritesStandardOutput) {
  const std::string d = dir.string() + "/";
  writeAlawWave(dir / "call.wav", 800);
  writePcmWave(dir / "pcm.wav", 800);
  ASSERT_EQ(run("decode " + d + "call.wav " + d + "file.wav"), 0) << err;
  ASSERT_EQ(run("decode " + d + "call.wav -"), 0) << err;
  EXPECT_EQ(out, text(dir / "file.wav"));
  EXPECT_FALSE(fs::exists(dir / "-"));
  ASSERT_EQ(run("encode --codec ulaw " + d + "pcm.wav " + d + "file.ulaw"), 0) << err;
  ASSERT_EQ(run("encode --codec ulaw " + d + "pcm.wav -"), 0) << err;
  EXPECT_EQ(out, text(dir / "file.ulaw"));
}

// An OUTPUT named by the user that is a link is written where it points; a
// FIFO or device is written as it is, never replaced by a file.
TEST_F(ToolSafety, WritesThroughLinksAndIntoFifos) {
  const std::string d = dir.string() + "/";
  writeAlawWave(dir / "call.wav", 800);
  fs::create_directories(dir / "store");
  fs::create_symlink(dir / "store" / "kept.wav", dir / "link.wav");  // to a file yet to be made
  EXPECT_EQ(run("decode " + d + "call.wav " + d + "link.wav"), 2) << "a link to nothing is refused";
  writeBytes(dir / "store" / "kept.wav", "an earlier output");
  ASSERT_EQ(run("decode " + d + "call.wav " + d + "link.wav"), 0) << err;
  EXPECT_TRUE(fs::is_symlink(dir / "link.wav"));
  EXPECT_EQ(fs::file_size(dir / "store" / "kept.wav"), 44u + 1600u);
  EXPECT_TRUE(partFiles(dir).empty());

  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  const std::string reader = "timeout 60 cat " + d + "fifo > " + d + "got.pcm & ";
  ASSERT_EQ(std::system((reader + std::string(QUILLON_TOOL_PATH) + " decode --raw " + d + "call.wav " + d +
                         "fifo; status=$?; wait; exit $status")
                            .c_str()),
            0);
  EXPECT_TRUE(fs::is_fifo(dir / "fifo"));
  EXPECT_EQ(fs::file_size(dir / "got.pcm"), 1600u);

  // Inside a batch's output folder a FIFO is not an output.
  fs::create_directories(dir / "in");
  fs::create_directories(dir / "out");
  writeAlawWave(dir / "in" / "a.wav", 800);
  ASSERT_EQ(::mkfifo((dir / "out" / "a.wav").c_str(), 0600), 0);
  EXPECT_EQ(run("batch --codec auto --force " + d + "in " + d + "out"), 1);
  EXPECT_NE(err.find("not a regular file"), std::string::npos) << err;
  EXPECT_TRUE(fs::is_fifo(dir / "out" / "a.wav"));
}

TEST_F(ToolSafety, BatchKeepsOutputsInsideTheOutputFolder) {
  const fs::path in = dir / "in", outDir = dir / "out", outside = dir / "elsewhere";
  fs::create_directories(in / "day1");
  fs::create_directories(outside / "calls");
  fs::create_directories(dir / "victims");
  writeAlawWave(outside / "original.wav", 8000);
  writeAlawWave(outside / "calls" / "c.wav", 800);
  const std::string original = text(outside / "original.wav");
  fs::create_symlink(outside / "original.wav", in / "linked.wav");
  fs::create_symlink(outside / "calls", in / "linked-folder");
  fs::create_symlink("..", in / "day1" / "loop");  // back to the input folder
  writeAlawWave(in / "day1" / "b.wav", 1600);
  // Outputs that are links out of the output folder: a file and a folder.
  fs::create_directories(outDir);
  fs::create_directory_symlink(dir / "victims", outDir / "day1");

  EXPECT_EQ(run("batch --codec auto --force " + in.string() + " " + outDir.string()), 1);
  EXPECT_EQ(text(outside / "original.wav"), original);
  EXPECT_EQ(fs::file_size(outDir / "linked.wav"), 44u + 16000u);
  EXPECT_EQ(fs::file_size(outDir / "linked-folder" / "c.wav"), 44u + 1600u);
  EXPECT_NE(err.find("symbolic link"), std::string::npos) << err;
  EXPECT_TRUE(fs::is_empty(dir / "victims"));
  EXPECT_FALSE(fs::exists(outDir / "day1" / "loop"));
  EXPECT_FALSE(fs::exists(outDir / "linked-folder" / "loop"));

  // Without --force an output that is a link is reported, with it the link
  // is replaced: the file it points to is never written.
  fs::remove(outDir / "day1");
  writeBytes(dir / "victims" / "v.wav", "victim");
  fs::remove(outDir / "linked.wav");
  fs::create_symlink(dir / "victims" / "v.wav", outDir / "linked.wav");
  EXPECT_EQ(run("batch --codec auto " + in.string() + " " + outDir.string()), 1);
  EXPECT_EQ(text(dir / "victims" / "v.wav"), "victim");
  EXPECT_NE(err.find("linked.wav: the output is a symbolic link"), std::string::npos) << err;
  EXPECT_EQ(run("batch --codec auto --force " + in.string() + " " + outDir.string()), 0) << err;
  EXPECT_EQ(text(outside / "original.wav"), original);
  EXPECT_EQ(text(dir / "victims" / "v.wav"), "victim");
  EXPECT_FALSE(fs::is_symlink(outDir / "linked.wav"));
  EXPECT_EQ(fs::file_size(outDir / "linked.wav"), 44u + 16000u);
  EXPECT_EQ(fs::file_size(outDir / "day1" / "b.wav"), 44u + 3200u);
  EXPECT_NE(out.find("3 converted, 0 skipped"), std::string::npos) << out;
}

TEST_F(ToolSafety, BatchRefusesOrSeparatesNestedFolders) {
  const fs::path in = dir / "in";
  fs::create_directories(in / "sub");
  writeAlawWave(in / "a.wav", 800);
  writeAlawWave(in / "sub" / "b.wav", 800);
  const std::string a = text(in / "a.wav");
  EXPECT_EQ(run("batch --codec auto --force " + in.string() + " " + in.string()), 2);
  EXPECT_EQ(run("batch --codec auto --force " + in.string() + " " + (in / "sub" / "..").string()), 2);
  EXPECT_EQ(run("batch --codec auto --force " + (in / "sub").string() + " " + in.string()), 2);
  EXPECT_EQ(text(in / "a.wav"), a);
  // An output folder inside the input folder is never read as input.
  for (int pass = 0; pass < 2; pass++) {
    EXPECT_EQ(run("batch --codec auto " + in.string() + " " + (in / "converted").string()), 0) << err;
    EXPECT_NE(out.find(pass == 0 ? "2 converted, 0 skipped" : "0 converted, 2 skipped"), std::string::npos) << out;
  }
  EXPECT_EQ(fs::file_size(in / "converted" / "sub" / "b.wav"), 44u + 1600u);
  EXPECT_FALSE(fs::exists(in / "converted" / "converted"));
}

TEST_F(ToolSafety, BatchNamesCollidingOutputsAfterTheWholeName) {
  const fs::path in = dir / "in", outDir = dir / "out";
  fs::create_directories(in);
  // WAVE files whatever their extension: auto detection reads the content.
  writeAlawWave(in / "X.wav", 800);
  writeAlawWave(in / "X.opus", 1600);
  writeAlawWave(in / "X.g722", 2400);
  writeAlawWave(in / "Y.g729", 3200);
  ASSERT_EQ(run("batch --codec auto --jobs 4 " + in.string() + " " + outDir.string()), 0) << err;
  EXPECT_EQ(fs::file_size(outDir / "X.wav.wav"), 44u + 1600u);
  EXPECT_EQ(fs::file_size(outDir / "X.opus.wav"), 44u + 3200u);
  EXPECT_EQ(fs::file_size(outDir / "X.g722.wav"), 44u + 4800u);
  EXPECT_EQ(fs::file_size(outDir / "Y.wav"), 44u + 6400u);
  EXPECT_FALSE(fs::exists(outDir / "X.wav"));
  EXPECT_NE(out.find("whole file name"), std::string::npos) << out;
  const std::string summary = text(outDir / "quillon-batch-summary.txt");
  EXPECT_NE(summary.find("X.opus.wav\tnamed after the whole file name"), std::string::npos) << summary;
}

TEST_F(ToolSafety, BatchReportsEachPathOnce) {
  const fs::path in = dir / "in";
  fs::create_directories(in);
  writeBytes(in / "notes.txt", "not audio");
  EXPECT_EQ(run("batch --codec auto " + in.string() + " " + (dir / "out").string()), 1);
  const std::string path = (in / "notes.txt").string();
  const size_t first = err.find(path);
  ASSERT_NE(first, std::string::npos) << err;
  EXPECT_EQ(err.find(path, first + 1), std::string::npos) << err;
}

TEST_F(ToolSafety, InterruptedBatchCleansUpAndWritesItsSummary) {
  const fs::path in = dir / "in", outDir = dir / "out";
  fs::create_directories(in);
  writeG729(in / "0.g729", 3600);
  for (int i = 1; i < 8; i++) fs::create_hard_link(in / "0.g729", in / (std::to_string(i) + ".g729"));
  for (int signal : {SIGINT, SIGTERM}) {
    fs::remove_all(outDir);
    const pid_t pid = start("batch --codec g729 --jobs 2 " + in.string() + " " + outDir.string());
    ASSERT_TRUE(waitForPart(outDir, pid));
    ::kill(pid, signal);
    EXPECT_EQ(finish(pid), 128 + signal);
    EXPECT_TRUE(partFiles(outDir).empty());
    const std::string summary = text(outDir / "quillon-batch-summary.txt");
    EXPECT_NE(summary.find("interrupted\t"), std::string::npos) << summary;
    EXPECT_NE(out.find("interrupted by"), std::string::npos) << out;
    // Only whole outputs: a converted file is complete, any other is absent.
    for (int i = 0; i < 8; i++) {
      const fs::path o = outDir / (std::to_string(i) + ".wav");
      if (fs::exists(o)) {
        EXPECT_EQ(fs::file_size(o), 44u + 3600u * 16000u) << o;
      }
    }
  }
}

TEST_F(ToolSafety, InterruptedDecodeRemovesItsTemporaryFile) {
  writeG729(dir / "long.g729", 7200);
  writeBytes(dir / "out.wav", "an earlier output");
  const pid_t pid = start("decode --codec g729 " + (dir / "long.g729").string() + " " + (dir / "out.wav").string());
  ASSERT_TRUE(waitForPart(dir, pid));
  ::kill(pid, SIGTERM);
  EXPECT_EQ(finish(pid), 143);
  EXPECT_TRUE(partFiles(dir).empty());
  EXPECT_EQ(text(dir / "out.wav"), "an earlier output");
}

// A trace line that cannot be written is a fatal error of the library: it
// fails the file being decoded, never the whole run, and leaves no
// temporary file. Standard error, where --trace writes, is a full device.
TEST_F(ToolSafety, FatalLibraryErrorsFailOneFile) {
  const std::string d = dir.string() + "/";
  writeG729(dir / "call.g729", 2);
  writeBytes(dir / "out.wav", "an earlier output");
  for (const char* api : {"", "--api "}) {
    const int status = std::system(("cd " + d + " && " + QUILLON_TOOL_PATH + " --trace decode " + api +
                                    "--codec g729 call.g729 out.wav 2>/dev/full")
                                       .c_str());
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << api;
    EXPECT_EQ(text(dir / "out.wav"), "an earlier output") << api;
    EXPECT_TRUE(partFiles(dir).empty()) << api;
  }

  fs::create_directories(dir / "in");
  for (int i = 0; i < 3; i++) writeG729(dir / "in" / (std::to_string(i) + ".g729"), 2);
  const int status = std::system(("cd " + d + " && " + QUILLON_TOOL_PATH +
                                  " --trace batch --codec g729 --jobs 2 in out >stdout.txt 2>/dev/full")
                                     .c_str());
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
  EXPECT_NE(text(dir / "stdout.txt").find("0 converted, 0 skipped (already converted), 3 failed"), std::string::npos)
      << text(dir / "stdout.txt");
  const std::string summary = text(dir / "out" / "quillon-batch-summary.txt");
  EXPECT_NE(summary.find("failed\tin/0.g729\tout/0.wav\t"), std::string::npos) << summary;
  EXPECT_NE(summary.find("codecLib_printf problem"), std::string::npos) << summary;
  EXPECT_TRUE(partFiles(dir).empty());
}

// A closed standard stream is never taken over by an output file, which
// would then receive the messages and trace lines meant for it.
TEST_F(ToolSafety, ClosedStandardStreamsStayOutOfOutputs) {
  const std::string d = dir.string() + "/";
  writeG729(dir / "call.g729", 2);
  ASSERT_EQ(run("decode --codec g729 call.g729 plain.wav"), 0) << err;
  const std::string tool = std::string("cd ") + d + " && " + QUILLON_TOOL_PATH;
  EXPECT_EQ(std::system((tool + " --trace decode --codec g729 call.g729 closed.wav 2>&- >&-").c_str()), 0);
  EXPECT_EQ(text(dir / "closed.wav"), text(dir / "plain.wav"));
  fs::create_directories(dir / "in");
  writeG729(dir / "in" / "call.g729", 2);
  EXPECT_EQ(std::system((tool + " batch --codec g729 in out >&-").c_str()), 0);
  EXPECT_EQ(text(dir / "out" / "call.wav"), text(dir / "plain.wav"));
  EXPECT_EQ(text(dir / "out" / "quillon-batch-summary.txt").rfind("converted\t", 0), 0u);
}

// The per-file rules, called directly.
TEST(BatchPlan, CollisionsAreRenamedUntilNoneRemain) {
  using quillon::tool::BatchEntry;
  std::vector<BatchEntry> entries;
  for (const char* name : {"a/X.wav", "a/X.opus", "a/X.opus.g729", "a/Y.g729", "b/X.opus", "c/Z"})
    entries.push_back({name, {}, false, {}});
  quillon::tool::nameBatchOutputs(entries);
  std::vector<std::string> outputs;
  for (const BatchEntry& e : entries) outputs.push_back(e.output.string());
  // X.opus.g729 -> X.opus.wav collides with X.opus's whole name, so it takes its whole name too.
  EXPECT_EQ(outputs, (std::vector<std::string>{"a/X.wav.wav", "a/X.opus.wav", "a/X.opus.g729.wav", "a/Y.wav",
                                               "b/X.wav", "c/Z.wav"}));
}

TEST(SafeOutput, EachOutputHasItsOwnTemporaryFile) {
  using quillon::tool::SafeOutput;
  const fs::path target = fs::temp_directory_path() / ("quillon-safe-" + std::to_string(::getpid()) + ".wav");
  std::string error;
  SafeOutput a, b;
  ASSERT_EQ(a.open(target.string(), {}, {}, error), SafeOutput::Status::Ok) << error;
  ASSERT_EQ(b.open(target.string(), {}, {}, error), SafeOutput::Status::Ok) << error;
  EXPECT_NE(a.temporaryPath(), b.temporaryPath());
  std::fputs("first", a.stream());
  std::fputs("second", b.stream());
  EXPECT_FALSE(fs::exists(target));
  ASSERT_TRUE(a.commit(error)) << error;
  const std::string temporary = b.temporaryPath();
  b.abandon();
  EXPECT_FALSE(fs::exists(temporary));
  EXPECT_EQ(readFile(target), (std::vector<uint8_t>{'f', 'i', 'r', 's', 't'}));
  // Without permission to replace, an existing target is refused, and one
  // that appears while writing is not replaced.
  EXPECT_EQ(a.open(target.string(), {false, true}, {}, error), SafeOutput::Status::Refused);
  fs::remove(target);
  ASSERT_EQ(a.open(target.string(), {false, true}, {}, error), SafeOutput::Status::Ok) << error;
  std::ofstream(target) << "meanwhile";
  EXPECT_FALSE(a.commit(error));
  EXPECT_EQ(readFile(target).size(), 9u);
  fs::remove(target);
}

}  // namespace
