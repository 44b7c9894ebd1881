/* Follows live values and prints each one when it is written.
 *
 *     table_reader [--count N] [--timeout MS] TABLE TAG...
 *
 * Ends after N values of each tag (no limit without it), or with 1 when none has come for MS.
 */
#include <getopt.h>
#include <kvl/store/kvl_table.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

enum { MAX_TAGS = 64 };

static long g_count = -1;
static int g_timeout = -1;

static int Fail(const char* what, int code) {
  fprintf(stderr, "table_reader: %s: %s\n", what, kvl_error_text(code));
  return 1;
}

static int PrintValue(kvl_tag* tag) {
  double number;
  char text[3 * 65535 + 1]; /* a byte of the tag takes up to three in UTF-8 */
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
  return code;
}

/* One thread waits for one tag. */
static void* Follow(void* argument) {
  kvl_tag* tag = argument;
  int code = KVL_OK;
  for (long i = 0; code == KVL_OK && i != g_count; ++i) {
    code = kvl_tag_wait(tag, g_timeout); /* sleeps until the next write */
    if (code == KVL_OK) code = PrintValue(tag);
  }
  if (code == KVL_OK) return NULL;
  Fail(kvl_tag_name(tag), code);
  return tag;
}

static int FollowAll(kvl_table* table, char** names, int count) {
  kvl_tag* tags[MAX_TAGS];
  pthread_t threads[MAX_TAGS];
  int result = 0;
  for (int i = 0; i < count; ++i) {
    const int code = kvl_table_tag(table, names[i], &tags[i]);
    if (code != KVL_OK) return Fail(names[i], code);
  }
  for (int i = 0; i < count; ++i) {
    if (pthread_create(&threads[i], NULL, Follow, tags[i]) != 0)
      exit(Fail(names[i], KVL_NO_MEMORY));
  }
  for (int i = 0; i < count; ++i) {
    void* failed;
    pthread_join(threads[i], &failed);
    if (failed != NULL) result = 1;
  }
  return result;
}

int main(int argc, char** argv) {
  const struct option options[] = {{"count", required_argument, NULL, 'c'},
                                   {"timeout", required_argument, NULL, 't'},
                                   {NULL, 0, NULL, 0}};
  for (int option; (option = getopt_long(argc, argv, "", options, NULL)) != -1;) {
    if (option == 'c') g_count = atol(optarg);
    if (option == 't') g_timeout = atoi(optarg);
    if (option == '?') return 2;
  }
  const int tags = argc - optind - 1;
  if (tags < 1 || tags > MAX_TAGS) {
    fprintf(stderr, "usage: table_reader [--count N] [--timeout MS] TABLE TAG...\n");
    return 2;
  }
  setvbuf(stdout, NULL, _IOLBF, 0); /* whoever reads along sees each line at once */

  kvl_table* table;
  const int code = kvl_table_open(argv[optind], &table);
  if (code != KVL_OK) return Fail(argv[optind], code);
  const int result = FollowAll(table, argv + optind + 1, tags);
  kvl_table_close(table); /* the tags with it; no call may be going on */
  return result;
}
