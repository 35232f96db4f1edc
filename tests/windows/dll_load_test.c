/* Loads quillon.dll the way its users do, with LoadLibrary and
 * GetProcAddress by the decorated __stdcall names, and drives the C
 * interface on a stream of every codec family the DLL decodes.
 *
 *   dll_load_test.exe PATH\quillon.dll [VECTOR_DIR [--require=CODE,...]]
 *
 * Streams are made here where that is easy (G.711, G.726, PCM8, MS ADPCM
 * output); with VECTOR_DIR the shared conformance streams are decoded too
 * and compared with their reference output. Families whose decoder is not
 * in this build (decoder_create gives 0) are reported and skipped, unless
 * --require lists their code.
 * Exit status 0 when every check passed. */
#include <windows.h>

#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

typedef int(__stdcall* FileToApiFn)(int);
typedef uintptr_t(__stdcall* CreateFn)(int);
typedef int(__stdcall* OpenFn)(uintptr_t, int);
typedef unsigned int(__stdcall* DecodeFn)(uintptr_t, const uint8_t*, uint8_t*, unsigned int);
typedef int(__stdcall* HandleFn)(uintptr_t);
typedef int32_t(__stdcall* TextFn)(char*, uint32_t*);
typedef int32_t(__stdcall* WideTextFn)(wchar_t*, uint32_t*);
typedef uint32_t(__stdcall* NumberFn)(void);
typedef void(__stdcall* VoidFn)(void);

static struct {
  FileToApiFn fileToApi;
  CreateFn create;
  OpenFn open;
  DecodeFn decode;
  HandleFn close;
  HandleFn release;
  TextFn hostName;
  TextFn localIp;
  WideTextFn loginUser;
  NumberFn versionNumber;
  VoidFn init;
  NumberFn terminalServices;
  const uint32_t* versionHigh;
  const uint32_t* versionLow;
  const uint32_t* versionBuild;
} dll;

static int failures = 0;
static const char* vectorDir = NULL;
static const char* requiredCodes = ""; /* "20,50": codes that must decode */

static int isRequired(int code) {
  for (const char* p = requiredCodes; *p;) {
    if (atoi(p) == code) return 1;
    while (*p && *p != ',') ++p;
    if (*p == ',') ++p;
  }
  return 0;
}

#define CHECK(cond, ...)                           \
  do {                                             \
    if (!(cond)) {                                 \
      ++failures;                                  \
      printf("FAIL %s:%d: ", __FILE__, __LINE__);  \
      printf(__VA_ARGS__);                         \
      printf("\n");                                \
    }                                              \
  } while (0)

static FARPROC need(HMODULE module, const char* name) {
  FARPROC p = GetProcAddress(module, name);
  CHECK(p != NULL, "export %s missing", name);
  return p;
}

/* Binds every export by its decorated name; 0 when one is missing. */
static int bindExports(HMODULE m) {
  dll.fileToApi = (FileToApiFn)need(m, "_FileToAPICompression@4");
  dll.create = (CreateFn)need(m, "_decoder_create@4");
  dll.open = (OpenFn)need(m, "_decoder_open@8");
  dll.decode = (DecodeFn)need(m, "_decode_decode@16");
  dll.close = (HandleFn)need(m, "_decoder_close@4");
  dll.release = (HandleFn)need(m, "_decoder_release@4");
  dll.hostName = (TextFn)need(m, "_getHostName@8");
  dll.localIp = (TextFn)need(m, "_getLocalIP@8");
  dll.loginUser = (WideTextFn)need(m, "_getLoginUser@8");
  dll.versionNumber = (NumberFn)need(m, "_getVersionNumber@0");
  dll.init = (VoidFn)need(m, "_initQL@0");
  dll.terminalServices = (NumberFn)need(m, "_isTerminalServicesEnabled@0");
  dll.versionHigh = (const uint32_t*)need(m, "s_QuillonVersionHigh");
  dll.versionLow = (const uint32_t*)need(m, "s_QuillonVersionLow");
  dll.versionBuild = (const uint32_t*)need(m, "s_QuillonVersionBuild");
  /* Only the decorated names exist. */
  CHECK(GetProcAddress(m, "decoder_create") == NULL, "undecorated decoder_create exported");
  CHECK(GetProcAddress(m, "decoder_create@4") == NULL, "decoder_create@4 exported");
  return failures == 0;
}

/* ---- file and buffer helpers ---- */

typedef struct {
  uint8_t* data;
  size_t size;
} Bytes;

static Bytes readWhole(const char* dir, const char* sub, const char* name) {
  Bytes b = {NULL, 0};
  char path[MAX_PATH];
  if (!dir) return b;
  snprintf(path, sizeof path, "%s/%s/%s", dir, sub, name);
  FILE* f = fopen(path, "rb");
  if (!f) return b;
  fseek(f, 0, SEEK_END);
  long n = ftell(f);
  fseek(f, 0, SEEK_SET);
  if (n > 0) {
    b.data = (uint8_t*)malloc((size_t)n);
    b.size = fread(b.data, 1, (size_t)n, f);
  }
  fclose(f);
  return b;
}

static int16_t sampleAt(const uint8_t* pcm, size_t i) {
  return (int16_t)(uint16_t)(pcm[2 * i] | (pcm[2 * i + 1] << 8));
}

/* Decodes `in` whole with a fresh decoder for `code` (output 16-bit PCM);
 * returns the output bytes, *handleOk 0 when the code has no decoder. */
static size_t decodeAll(int code, const uint8_t* in, size_t inBytes, uint8_t* out, int* handleOk) {
  uintptr_t h = dll.create(code);
  *handleOk = h != 0;
  if (!h) return 0;
  CHECK(dll.open(h, 100) == 1, "decoder_open(code %d, 100)", code);
  size_t got = dll.decode(h, in, out, (unsigned int)inBytes);
  CHECK(dll.close(h) == 1, "decoder_close(code %d)", code);
  CHECK(dll.release(h) != 0, "decoder_release(code %d)", code);
  return got;
}

/* Decodes a conformance stream and compares it with its reference:
 * bit-exact when tolerance is 0, else by signal-to-error ratio in dB.
 * Returns 1 when the vector was there. */
static int checkVector(const char* family, int code, const char* sub, const char* stream, const char* reference,
                       double minSnrDb) {
  Bytes in = readWhole(vectorDir, sub, stream);
  Bytes want = readWhole(vectorDir, sub, reference);
  if (!in.data || !want.data) {
    free(in.data);
    free(want.data);
    return 0;
  }
  size_t room = want.size + in.size * 32 + (1u << 20);
  uint8_t* out = (uint8_t*)malloc(room);
  int ok = 0;
  size_t got = decodeAll(code, in.data, in.size, out, &ok);
  CHECK(ok, "%s: no decoder for code %d", family, code);
  if (ok) {
    if (minSnrDb <= 0) {
      CHECK(got == want.size && memcmp(out, want.data, got) == 0, "%s %s: %u bytes, reference %u, %s", family,
            stream, (unsigned)got, (unsigned)want.size,
            got == want.size ? "contents differ" : "sizes differ");
    } else {
      CHECK(got == want.size, "%s %s: %u bytes, reference %u", family, stream, (unsigned)got, (unsigned)want.size);
      if (got == want.size) {
        double signal = 1e-9, error = 0;
        for (size_t i = 0; i < got / 2; ++i) {
          double r = sampleAt(want.data, i), d = sampleAt(out, i) - r;
          signal += r * r;
          error += d * d;
        }
        double snr = error > 0 ? 10 * log10(signal / error) : 999;
        CHECK(snr >= minSnrDb, "%s %s: %.1f dB against the reference", family, stream, snr);
      }
    }
    printf("  %-12s %-34s %u bytes out\n", family, stream, (unsigned)got);
  }
  free(out);
  free(in.data);
  free(want.data);
  return 1;
}

/* ---- built-in streams ---- */

static void testG711(void) {
  static const struct {
    int code;
    uint8_t byte;
    int16_t value;
  } known[] = {{1, 0xD5, 8},     {1, 0x55, -8},     {1, 0xAA, 32256}, {1, 0x2A, -32256}, {1, 0x80, 5504},
               {2, 0xFF, 0},     {2, 0x7F, 0},      {2, 0xFE, 8},     {2, 0x80, 32124},  {2, 0x00, -32124}};
  uint8_t in[256], out[512];
  for (int i = 0; i < 256; ++i) in[i] = (uint8_t)i;
  for (int law = 1; law <= 2; ++law) {
    int ok = 0;
    size_t got = decodeAll(law, in, sizeof in, out, &ok);
    CHECK(ok, "G.711 code %d: no decoder", law);
    CHECK(got == 512, "G.711 code %d: %u bytes out of 256", law, (unsigned)got);
    for (size_t k = 0; k < sizeof known / sizeof known[0]; ++k)
      if (known[k].code == law && got == 512)
        CHECK(sampleAt(out, known[k].byte) == known[k].value, "G.711 code %d: 0x%02X gives %d, not %d", law,
              known[k].byte, sampleAt(out, known[k].byte), known[k].value);
  }
  checkVector("G.711 A-law", 1, "g711", "allcodes-a.alaw", "allcodes-a.pcm", 0);
  checkVector("G.711 A-law", 1, "g711", "hts12-a.alaw", "hts12-a.pcm", 0);
  checkVector("G.711 mu-law", 2, "g711", "allcodes-u.ulaw", "allcodes-u.pcm", 0);
  checkVector("G.711 mu-law", 2, "g711", "hts12-u.ulaw", "hts12-u.pcm", 0);
}

static void testG726(void) {
  /* Codes 3..6: 40, 32, 24, 16 kbit/s; 13..16 the same rates LSB-first. */
  static const int rates[4] = {40, 32, 24, 16};
  static const int groupBytes[4] = {5, 1, 3, 1};
  static const int groupSamples[4] = {8, 2, 8, 4};
  uint8_t in[600], out[600 * 16], again[600 * 16];
  uint32_t x = 1;
  for (size_t i = 0; i < sizeof in; ++i) { /* xorshift32 codewords */
    x ^= x << 13, x ^= x >> 17, x ^= x << 5;
    in[i] = (uint8_t)x;
  }
  for (int r = 0; r < 4; ++r) {
    for (int lsb = 0; lsb <= 1; ++lsb) {
      int code = 3 + r + (lsb ? 10 : 0), ok = 0;
      size_t expect = sizeof in / groupBytes[r] * groupSamples[r] * 2;
      size_t got = decodeAll(code, in, sizeof in, out, &ok);
      CHECK(ok, "G.726 code %d: no decoder", code);
      CHECK(got == expect, "G.726 code %d: %u bytes, expected %u", code, (unsigned)got, (unsigned)expect);
      size_t second = decodeAll(code, in, sizeof in, again, &ok);
      CHECK(second == got && memcmp(out, again, got) == 0, "G.726 code %d: fresh decoders disagree", code);
      char stream[64], reference[64];
      snprintf(stream, sizeof stream, "hts12-%d.g726-%d-%s", rates[r], rates[r], lsb ? "lsb" : "msb");
      snprintf(reference, sizeof reference, "hts12-%d.pcm", rates[r]);
      checkVector("G.726", code, "g726", stream, reference, 0);
    }
  }
  /* Recording files number the rates one step apart. */
  CHECK(dll.fileToApi(3) == 4 && dll.fileToApi(6) == 3 && dll.fileToApi(16) == 13 && dll.fileToApi(1) == 1,
        "FileToAPICompression mapping");
  CHECK(dll.fileToApi(100) == 0, "FileToAPICompression(100)");
}

static void testPcm8(void) {
  /* Excess-128 bytes: (b - 128) * 256. */
  uint8_t in[3] = {0x80, 0x00, 0xFF}, out[6];
  int ok = 0;
  size_t got = decodeAll(102, in, sizeof in, out, &ok);
  CHECK(ok, "PCM8: no decoder");
  CHECK(got == 6 && sampleAt(out, 0) == 0 && sampleAt(out, 1) == -32768 && sampleAt(out, 2) == 32512,
        "PCM8: %u bytes", (unsigned)got);
  /* Opus (code 64) is decoded through the C++ interface only: the
   * handle interface has no decoder for it. */
  CHECK(dll.create(64) == 0, "decoder_create(64)");
}

static void testMsAdpcmOutput(void) {
  /* MS ADPCM is an output code: A-law in, ADPCM blocks out. */
  uint8_t in[8000], out[64000];
  for (size_t i = 0; i < sizeof in; ++i) in[i] = (uint8_t)(0xD5 ^ (i * 37 & 0x7F));
  uintptr_t h = dll.create(1);
  CHECK(h != 0, "A-law decoder");
  if (!h) return;
  if (dll.open(h, 101) != 1) {
    printf("  MS ADPCM output: not in this build\n");
  } else {
    size_t got = dll.decode(h, in, out, sizeof in);
    /* 4 bits a sample plus block headers: well under the 16-bit size. */
    CHECK(got > 0 && got < sizeof in, "MS ADPCM output: %u bytes from %u samples", (unsigned)got,
          (unsigned)sizeof in);
    printf("  %-12s %-34s %u bytes out\n", "MS ADPCM", "(A-law in, built here)", (unsigned)got);
    dll.close(h);
  }
  CHECK(dll.release(h) != 0, "release");
}

/* Families merged into the library later: checked when the DLL has their
 * decoder and the shared streams are there (whole stream in, output
 * expected), with the reference compared where the sizes agree. */
static void testOtherFamilies(void) {
  static const struct {
    const char* family;
    int code;
    const char* sub;
    const char* stream;
  } others[] = {{"G.729A", 20, "g729", "hts12-loud.g729"},
                {"G.722", 50, "g722", "orig16k-m1.g722"},
                {"TETRA", 40, "tetra", NULL},
                {"ICELP48", 30, NULL, NULL}};
  for (size_t k = 0; k < sizeof others / sizeof others[0]; ++k) {
    uintptr_t h = dll.create(others[k].code);
    if (!h) {
      CHECK(!isRequired(others[k].code), "%s (code %d): no decoder though registered", others[k].family,
            others[k].code);
      printf("  %-12s (code %d) not in this build\n", others[k].family, others[k].code);
      continue;
    }
    CHECK(dll.open(h, 100) == 1, "%s: decoder_open", others[k].family);
    CHECK(dll.close(h) == 1 && dll.release(h) != 0, "%s: close and release", others[k].family);
    /* Find a stream of the family: the named one, else the first file of
     * the folder that has a .pcm beside it. */
    char stream[MAX_PATH] = "", reference[MAX_PATH];
    if (others[k].stream) snprintf(stream, sizeof stream, "%s", others[k].stream);
    if (!stream[0] && others[k].sub && vectorDir) {
      char pattern[MAX_PATH];
      WIN32_FIND_DATAA found;
      snprintf(pattern, sizeof pattern, "%s/%s/*", vectorDir, others[k].sub);
      HANDLE f = FindFirstFileA(pattern, &found);
      if (f != INVALID_HANDLE_VALUE) {
        do {
          const char* dot = strrchr(found.cFileName, '.');
          if (!dot || !strcmp(dot, ".pcm") || !strcmp(dot, ".txt") || !strcmp(dot, ".md")) continue;
          snprintf(stream, sizeof stream, "%s", found.cFileName);
          break;
        } while (FindNextFileA(f, &found));
        FindClose(f);
      }
    }
    if (!stream[0]) continue;
    snprintf(reference, sizeof reference, "%.*s.pcm", (int)(strrchr(stream, '.') - stream), stream);
    Bytes in = readWhole(vectorDir, others[k].sub, stream);
    if (!in.data) continue;
    size_t room = in.size * 64 + (1u << 20);
    uint8_t* out = (uint8_t*)malloc(room);
    int ok = 0;
    size_t got = decodeAll(others[k].code, in.data, in.size, out, &ok);
    CHECK(got > 0, "%s %s: no output", others[k].family, stream);
    Bytes want = readWhole(vectorDir, others[k].sub, reference);
    size_t same = 0;
    if (want.data && want.size == got)
      for (size_t i = 0; i < got / 2; ++i) same += sampleAt(out, i) == sampleAt(want.data, i);
    printf("  %-12s %-34s %u bytes out, %u of %u samples as the reference\n", others[k].family, stream,
           (unsigned)got, (unsigned)same, (unsigned)(want.size / 2));
    free(want.data);
    free(out);
    free(in.data);
  }
}

static void testHostExports(void) {
  dll.init();
  CHECK(*dll.versionHigh == 80 && *dll.versionLow == 0 && *dll.versionBuild == 0, "version values %u.%u.%u",
        *dll.versionHigh, *dll.versionLow, *dll.versionBuild);
  CHECK(dll.versionNumber() == 0x500000, "getVersionNumber 0x%X", dll.versionNumber());
  CHECK(dll.terminalServices() == 0, "not a remote session");

  char name[64];
  uint32_t size = sizeof name - 1;
  CHECK(dll.hostName(name, &size) == 0 && name[0] != 0, "getHostName");
  uint32_t tiny = 0;
  CHECK(dll.hostName(name, &tiny) == -1 && tiny > 0, "getHostName into no room");

  char ip[64];
  size = sizeof ip - 1;
  int32_t r = dll.localIp(ip, &size);
  CHECK(r == 0 || r == -2, "getLocalIP %d", r);
  if (r == 0) CHECK(strchr(ip, '.') != NULL, "getLocalIP text %s", ip);

  wchar_t user[256];
  size = 256;
  r = dll.loginUser(user, &size);
  CHECK(r == 0 || r > 0, "getLoginUser %d", r);
  if (r == 0) CHECK(size > 0 && wcschr(user, L'\\') != NULL, "getLoginUser DOMAIN\\user");
  printf("  host %s, IPv4 %s, user %s\n", name, r == 0 ? ip : "(none)", r == 0 ? "DOMAIN\\user" : "(error)");
}

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s PATH\\quillon.dll [VECTOR_DIR]\n", argv[0]);
    return 2;
  }
  if (argc > 3 && strncmp(argv[3], "--require=", 10) == 0) requiredCodes = argv[3] + 10;
  if (argc > 2) {
    DWORD attributes = GetFileAttributesA(argv[2]);
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY)) vectorDir = argv[2];
    else printf("no vectors at %s: built-in streams only\n", argv[2]);
  }
  HMODULE module = LoadLibraryA(argv[1]);
  if (!module) {
    printf("FAIL: LoadLibrary(%s): error %lu\n", argv[1], (unsigned long)GetLastError());
    return 1;
  }
  if (bindExports(module)) {
    CHECK(dll.create(7) == 0, "decoder_create(7) gives no decoder");
    CHECK(dll.release(0) != 0, "decoder_release(0)");
    testG711();
    testG726();
    testPcm8();
    testMsAdpcmOutput();
    testOtherFamilies();
    testHostExports();
  }
  FreeLibrary(module);
  printf(failures ? "%d check(s) failed\n" : "all checks passed\n", failures);
  return failures ? 1 : 0;
}
