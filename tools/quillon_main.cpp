// quillon: decode and encode telephony and radio speech streams.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>

#include "commands.h"
#include "library_errors.h"
#include "quillon/trace.h"

namespace {

void printHelp() {
  std::printf(
      "usage: quillon [--trace] COMMAND ...\n"
      "\n"
      "  decode [--codec CODE] [--rate 8000] [--resampler mean|halfband] [--raw] [--api]\n"
      "         [--channels stereo|mix|left|right|split] INPUT OUTPUT|-\n"
      "      decode a recording to 16-bit PCM: a WAVE file, or bare little-endian\n"
      "      samples with --raw. INPUT '-' is standard input (a pipe works). The\n"
      "      container says what it holds (WAVE, RF64, AMR-WB storage, SILK_V3, Ogg\n"
      "      Opus); raw streams need --codec, and a --codec the container contradicts\n"
      "      is refused. Stereo WAVE and Ogg Opus stay stereo; --channels mixes,\n"
      "      picks one side or splits into NAME.left.wav and NAME.right.wav.\n"
      "      --rate 8000 halves 16 kHz\n"
      "      codecs, by pair means or with --resampler halfband by an anti-aliasing\n"
      "      low-pass; --api decodes through the plain C exports instead.\n"
      "  probe FILE\n"
      "      say what a file (or '-', standard input) is, its channels and whether\n"
      "      it can be decoded.\n"
      "  batch --codec CODE|auto [--jobs N] [--force] [--rate 8000] [--resampler R] IN_DIR OUT_DIR\n"
      "      decode every file under IN_DIR to OUT_DIR/<same path>.wav in N threads;\n"
      "      files already converted are skipped unless --force; files of one\n"
      "      folder that would share an output are named X.ext.wav instead; a\n"
      "      summary is written to OUT_DIR/quillon-batch-summary.txt, also when\n"
      "      stopped by SIGINT/SIGTERM.\n"
      "  encode --codec CODE [--mode N] [--dtx] INPUT.wav OUTPUT|-\n"
      "      encode a 16-bit PCM mono WAVE file (8000 or 16000 Hz; '-' reads standard\n"
      "      input). For amrwb\n"
      "      (16000 Hz input), --mode 0..8 picks 6.60 to 23.85 kbit/s (default 2,\n"
      "      12.65 kbit/s) and --dtx sends SID/NO_DATA frames in speech pauses;\n"
      "      the output is the length-prefixed frame stream 'decode --codec amrwb' reads.\n"
      "  capture [--out DIR] [--split] [--force] [--dry-run] [--report csv|json] [--pt PT=NAME]\n"
      "          [--sdp FILE] [--rate 8000|16000|48000] CAPTURE...\n"
      "      decode the RTP calls of pcap/pcapng captures ('-': standard input) to\n"
      "      one stereo WAVE per call (caller left), or one mono WAVE per stream\n"
      "      with --split; SIP/SDP in the capture, --sdp or --pt describe payloads.\n"
      "  text --from NAME --to NAME [--filter upper|lower|sort] [IN [OUT]]\n"
      "      convert text between character sets (standard input/output by default).\n"
      "  host\n"
      "      print host name, IPv4 address, user, remote-session state and version.\n"
      "  codecs\n"
      "      list the codecs and what this build can do with each.\n"
      "  demo [OUTDIR]\n"
      "      encode the built-in speech clip with every encoder, decode every\n"
      "      stream, write the WAVE files to OUTDIR (default quillon-demo) and\n"
      "      print a table of sizes, speeds and signal-to-noise ratios.\n"
      "  help\n"
      "\n"
      "CODE is a compression number or a name from 'quillon codecs'. OUTPUT -\n"
      "is standard output. Outputs are written under a temporary name and\n"
      "renamed when complete; an output that is the input is refused.\n"
      "Exit status: 0 done, 1 bad input or failed output, 2 bad arguments,\n"
      "130/143 interrupted.\n"
      "--trace sends the library's trace lines to standard error (they are\n"
      "discarded otherwise).\n");
}

int dispatch(int argc, char** argv) {
  int first = 1;
  quillon_set_trace_sink(nullptr);
  if (first < argc && std::strcmp(argv[first], "--trace") == 0) {
    quillon_set_trace_sink(stderr);
    first++;
  }
  if (first >= argc) {
    printHelp();
    return 2;
  }
  const char* command = argv[first];
  int subArgc = argc - first;
  char** subArgv = argv + first;
  if (std::strcmp(command, "decode") == 0) return runDecodeCommand(subArgc, subArgv);
  if (std::strcmp(command, "encode") == 0) return runEncodeCommand(subArgc, subArgv);
  if (std::strcmp(command, "codecs") == 0) return runCodecsCommand(subArgc, subArgv);
  if (std::strcmp(command, "demo") == 0) return runDemoCommand(subArgc, subArgv);
  if (std::strcmp(command, "probe") == 0) return runProbeCommand(subArgc, subArgv);
  if (std::strcmp(command, "batch") == 0) return runBatchCommand(subArgc, subArgv);
  if (std::strcmp(command, "text") == 0) return runTextCommand(subArgc, subArgv);
  if (std::strcmp(command, "host") == 0) return runHostCommand(subArgc, subArgv);
  if (std::strcmp(command, "capture") == 0) return runCaptureCommand(subArgc, subArgv);
  if (std::strcmp(command, "help") == 0 || std::strcmp(command, "--help") == 0 || std::strcmp(command, "-h") == 0) {
    printHelp();
    return 0;
  }
  std::fprintf(stderr, "quillon: unknown command '%s' (see 'quillon help')\n", command);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  // A standard stream the caller closed is opened on /dev/null: otherwise
  // the first output file would take its number and receive the messages
  // and trace lines meant for it.
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++)
    if (::fcntl(fd, F_GETFD) == -1 && errno == EBADF && ::open("/dev/null", O_RDWR) != fd) return 1;
  // An exception (a fatal library error, memory) ends the command with exit
  // status 1; unwinding removes its temporary output file.
  quillon::tool::installFatalErrorHandler();
  try {
    return dispatch(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "quillon: %s\n", quillon::tool::describeFailure(e).c_str());
    return 1;
  }
}
