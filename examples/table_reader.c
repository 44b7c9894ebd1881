/* Follows one live value and prints it each time it is written.
 *
 *     table_reader TABLE TAG [COUNT [TIMEOUT_MS]]
 *
 * Ends after COUNT values (no limit without it), or when none has come for TIMEOUT_MS.
 * Build:  cc table_reader.c -lkvl -o table_reader
 */
#include <stdio.h>
#include <stdlib.h>

#include "store/kvl_table.h"

static int Fail(const char* what, int code) {
  fprintf(stderr, "table_reader: %s: %s\n", what, kvl_error_text(code));
  return 1;
}

static int PrintValue(kvl_tag* tag) {
  double number;
  char text[65536 * 2];
  int type;
  size_t size;
  int code = kvl_tag_info(tag, &type, &size);
  if (code == KVL_OK && type == KVL_TYPE_TEXT) {
    code = kvl_tag_read_text(tag, text, sizeof text);
    if (code == KVL_OK) printf("%s %s\n", kvl_tag_name(tag), text);
  } else if (code == KVL_OK) {
    code = kvl_tag_read_number(tag, &number);
    if (code == KVL_OK) printf("%s %g\n", kvl_tag_name(tag), number);
  }
  fflush(stdout);
  return code;
}

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: table_reader TABLE TAG [COUNT [TIMEOUT_MS]]\n");
    return 2;
  }
  const long count = argc > 3 ? atol(argv[3]) : -1;
  const int timeout = argc > 4 ? atoi(argv[4]) : -1;

  kvl_table* table;
  int code = kvl_table_open(argv[1], &table);
  if (code != KVL_OK) return Fail(argv[1], code);
  kvl_tag* tag;
  code = kvl_table_tag(table, argv[2], &tag);
  for (long i = 0; code == KVL_OK && i != count; ++i) {
    code = kvl_tag_wait(tag, timeout);
    if (code == KVL_OK) code = PrintValue(tag);
  }
  if (code != KVL_OK) Fail(argv[2], code);
  kvl_table_close(table);
  return code == KVL_OK ? 0 : 1;
}
