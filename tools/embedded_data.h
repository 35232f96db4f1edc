// Data files built into the tool (tools/data/), by path relative to that folder.
#ifndef QUILLON_TOOLS_EMBEDDED_DATA_H
#define QUILLON_TOOLS_EMBEDDED_DATA_H

#include <cstddef>
#include <cstdint>

struct EmbeddedFile {
  const char* name;
  const uint8_t* data;
  size_t size;
};

extern const EmbeddedFile kEmbeddedFiles[];
extern const size_t kEmbeddedFileCount;

// The file called `name`, or null.
inline const EmbeddedFile* findEmbeddedFile(const char* name) {
  for (size_t i = 0; i < kEmbeddedFileCount; i++) {
    const char* a = kEmbeddedFiles[i].name;
    const char* b = name;
    while (*a && *a == *b) a++, b++;
    if (*a == *b) return &kEmbeddedFiles[i];
  }
  return nullptr;
}

#endif
