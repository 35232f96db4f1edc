/* Links quillon.dll through its import library (quillon.lib) with the
 * public headers, as a C program built against the DLL would, and calls
 * into it: proves the import library maps each caller's symbol to the
 * decorated export and that the version values import as data. */
#include <stdio.h>

#include "quillon/host_info.h"
#include "quillon/quillon_c.h"

int main(void) {
  int failures = 0;
  quillon_decoder_handle h = decoder_create(FileToAPICompression(1));
  const unsigned char in[2] = {0xD5, 0x55};
  unsigned char out[4] = {0};
  if (!h || decoder_open(h, 100) != 1 || decode_decode(h, in, out, 2) != 4) ++failures;
  if ((short)(out[0] | out[1] << 8) != 8 || (short)(out[2] | out[3] << 8) != -8) ++failures;
  if (decoder_release(h) == 0) ++failures;
  if (s_QuillonVersionHigh != 80 || getVersionNumber() != 0x500000) ++failures;
  printf(failures ? "import library: %d failure(s)\n" : "import library: ok\n", failures);
  return failures ? 1 : 0;
}
