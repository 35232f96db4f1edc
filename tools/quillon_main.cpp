#include <cstdio>

int main(int argc, char** argv) {
  (void)argv;
  std::fprintf(stderr, "usage: quillon <decode|encode|codecs|demo> ...\n");
  return argc > 1 ? 2 : 0;
}
