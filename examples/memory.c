/* Allocates a block for a module, prints how many bytes each module holds, and frees the block. */
#include <stdio.h>
#include <string.h>
#include <tirn/mem.h>

int main(void) {
  const uint32_t module = 42;
  char* text = kesa_malloc(module, 100);
  if (text == NULL) {
    return 1;
  }
  strcpy(text, "tagged");
  kesa_mem_show(printf);
  kesa_free(text);
  kesa_mem_show(printf);
  return 0;
}
