/* The C interface by itself: a table that nobody has laid. */
#include <kvl/store/kvl_table.h>
#include <stdio.h>

int main(void) {
  kvl_table* table = NULL;
  printf("%s\n", kvl_table_open("KVL_PACKAGE_TEST", &table) == KVL_NOT_FOUND ? "no table" : "odd");
  kvl_table_close(table);
  return 0;
}
