/* Decodes random streams through the C interface in random chunkings, each
 * call into an output buffer of exactly the room the README gives for it and
 * from an input buffer of exactly the chunk's size, so that the sanitizer
 * build catches any read or write outside them. Every code decode_create
 * accepts is covered. Exit status 0 when every call stayed inside its room
 * and wrote what the rule says. */
#include <quillon/quillon_c.h>
#include <quillon/trace.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* The README's rule for one code. A call of n bytes, with `held` bytes kept
 * back by earlier calls, needs room for the whole frames in held + n (a
 * "frame" of one byte for the codes decoded byte by byte):
 * 2 * frameSamples * ((held + n) / frameBytes) bytes, and keeps
 * (held + n) % frameBytes back. A call of fewer than minChunk bytes writes
 * nothing and drops what was held. frameBytes 0: the input is copied. */
struct room_rule {
  int code;
  unsigned frameBytes;
  unsigned frameSamples;
  unsigned minChunk;
  int exact; /* the call writes exactly the room (0: at most) */
};

static const struct room_rule kRules[] = {
    {1, 1, 1, 0, 1},     {2, 1, 1, 0, 1},     {3, 5, 8, 0, 1},     {4, 1, 2, 0, 1},
    {5, 3, 8, 0, 1},     {6, 1, 4, 0, 1},     {13, 5, 8, 0, 1},    {14, 1, 2, 0, 1},
    {15, 3, 8, 0, 1},    {16, 1, 4, 0, 1},    {20, 10, 80, 10, 1}, {30, 18, 240, 0, 0},
    {40, 18, 240, 0, 1}, {50, 160, 320, 80, 1}, {51, 160, 320, 80, 1}, {52, 160, 320, 80, 1},
    {100, 0, 0, 0, 1},   {102, 1, 1, 0, 1},
};

static unsigned s_seed = 0x2545F491u;

static unsigned next_random(void) {
  s_seed ^= s_seed << 13;
  s_seed ^= s_seed >> 17;
  s_seed ^= s_seed << 5;
  return s_seed;
}

/* The room a call of n bytes needs; updates *held. */
static unsigned room_for(const struct room_rule* r, unsigned* held, unsigned n) {
  if (r->frameBytes == 0) return n;
  if (n < r->minChunk) {
    *held = 0;
    return 0;
  }
  const unsigned total = *held + n;
  *held = total % r->frameBytes;
  return 2 * r->frameSamples * (total / r->frameBytes);
}

/* One stream of `size` random bytes in chunks of 0..maxChunk units of
 * `unit` bytes. */
static int run_stream(const struct room_rule* r, unsigned size, unsigned maxChunk, unsigned unit) {
  quillon_decoder_handle h = decoder_create(r->code);
  if (!h || !decoder_open(h, 100)) {
    fprintf(stderr, "code %d: no decoder\n", r->code);
    decoder_release(h);
    return 1;
  }
  unsigned char* stream = malloc(size);
  if (!stream) return 1;
  for (unsigned i = 0; i < size; i++) stream[i] = (unsigned char)next_random();
  int failures = 0;
  unsigned held = 0;
  unsigned offset = 0;
  while (offset < size) {
    unsigned n = next_random() % (maxChunk + 1) * unit;
    if (n > size - offset) n = size - offset;
    const unsigned room = room_for(r, &held, n);
    /* Never a null output, even with no room: the codecLib codes ignore
     * such a call. */
    unsigned char* in = malloc(n);
    unsigned char* out = malloc(room);
    if (!in && n == 0) in = malloc(1);
    if (!out && room == 0) out = malloc(1);
    if (!in || !out) return 1;
    memcpy(in, stream + offset, n);
    const unsigned written = decode_decode(h, in, out, n);
    if (written > room || (r->exact && written != room)) {
      fprintf(stderr, "code %d: %u bytes after %u: wrote %u, room %u\n", r->code, n, offset, written, room);
      failures++;
    }
    free(out);
    free(in);
    offset += n;
  }
  free(stream);
  decoder_close(h);
  decoder_release(h);
  return failures;
}

int main(void) {
  int failures = 0;
  quillon_set_trace_sink(NULL); /* the codecLib codes trace every call */
  const unsigned maxChunks[] = {7, 40, 400, 2000};
  for (size_t i = 0; i < sizeof kRules / sizeof kRules[0]; i++)
    for (size_t k = 0; k < sizeof maxChunks / sizeof maxChunks[0]; k++)
      failures += run_stream(&kRules[i], 6000, maxChunks[k], 1);
  /* ICELP48 fills its room exactly when every call carries whole frames. */
  const struct room_rule icelpWhole = {30, 18, 240, 0, 1};
  failures += run_stream(&icelpWhole, 18 * 300, 20, 18);
  if (failures) fprintf(stderr, "%d calls outside their room\n", failures);
  else printf("every call stayed inside its room\n");
  return failures ? 1 : 0;
}
