/* Reading the live values of kvl from C, and from every language that can call C.
 *
 *     kvl_table *table;
 *     kvl_tag *level;
 *     double value;
 *     if (kvl_table_open("GAUGES", &table) != KVL_OK) ...
 *     if (kvl_table_tag(table, "LEVEL", &level) != KVL_OK) ...
 *     while (kvl_tag_wait(level, 10000) == KVL_OK)     // at once, then at each new value
 *       if (kvl_tag_read_number(level, &value) == KVL_OK) printf("%g\n", value);
 *     kvl_table_close(table);
 *
 * Threads:   every function may be called from any thread, also on one table or one tag, but for
 *            kvl_table_close and kvl_tag_close: no other call may be going on then, or come after.
 * Errors:    functions that return int return KVL_OK or one of the codes below; they then leave
 *            their results as they were, unless told otherwise.
 * Pointers:  a null pointer is refused with KVL_BAD_PARAMETER, and closing one does nothing. Texts
 * are UTF-8, ended by a zero byte.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "platform/api.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kvl_table kvl_table;
typedef struct kvl_tag kvl_tag;

enum {
  KVL_OK = 0,
  KVL_NOT_FOUND = 2,     /* no such table, or no such tag in it, or no more */
  KVL_ACCESS_DENIED = 5, /* the table's folder is not this user's own */
  KVL_NO_MEMORY = 8,
  KVL_WRONG_TYPE = 13,    /* the tag does not hold what was asked for */
  KVL_BAD_PARAMETER = 87, /* a pointer is null */
  KVL_SMALL_BUFFER = 122, /* the destination is shorter than the value */
  KVL_TIMEOUT = 258,      /* no new value within the time */
  KVL_BAD_NAME = 1113,    /* the name can't be the name of a table or a tag */
  KVL_DAMAGED = 1392      /* the table's records run past its section */
  /* Other codes are the platform's; kvl_error_text knows them all. */
};

/* What a tag holds. */
enum {
  KVL_TYPE_BYTE = 1,    /* 1 byte, 0 to 255 */
  KVL_TYPE_INTEGER = 2, /* signed; 2 bytes if that is its size, otherwise 4 */
  KVL_TYPE_FLOAT = 3,   /* IEEE 754 single, 4 bytes */
  KVL_TYPE_TEXT = 4     /* bytes in code page 949, up to the first zero byte */
};

/* What a code means, in English. Never null; valid for ever. */
KVL_API const char* kvl_error_text(int code);

/* Opens a table of this user's that is there; none is made. When the table is removed and laid
 * anew, what is open goes over to the new one by itself. Close the result with kvl_table_close. */
KVL_API int kvl_table_open(const char* name, kvl_table** table);

/* Closes a table and all its tags. Null is let pass. */
KVL_API void kvl_table_close(kvl_table* table);

/* Looks a tag up. The result belongs to the table and ends with it, or with kvl_tag_close. A tag
 * looked up twice gives two results, each of which is told of every new value. */
KVL_API int kvl_table_tag(kvl_table* table, const char* name, kvl_tag** tag);

/* Closes one tag before its table is. Null is let pass. */
KVL_API void kvl_tag_close(kvl_tag* tag);

/* The name under which the tag was looked up; valid as long as the tag. */
KVL_API const char* kvl_tag_name(const kvl_tag* tag);

/* The tag's type, one of KVL_TYPE_ or a number unknown here, and the size of its value in bytes. */
KVL_API int kvl_tag_info(kvl_tag* tag, int* type, size_t* size);

/* Copies the value's bytes, integers and floats in the machine's byte order. `size` takes the
 * number of bytes that the value has; with KVL_SMALL_BUFFER, too, and then nothing is copied. */
KVL_API int kvl_tag_read(kvl_tag* tag, void* bytes, size_t room, size_t* size);

/* Reads a byte, an integer or a float; KVL_WRONG_TYPE for anything else. */
KVL_API int kvl_tag_read_number(kvl_tag* tag, double* number);

/* Reads a text as UTF-8; KVL_WRONG_TYPE for anything else. `room` counts the zero byte behind the
 * text. KVL_SMALL_BUFFER if it does not fit; nothing is copied then. */
KVL_API int kvl_tag_read_text(kvl_tag* tag, char* text, size_t room);

/* Waits until the tag has been written since this function last returned KVL_OK for it; the first
 * call returns at once, so that the value there already is taken up, too. No value goes unnoticed,
 * but several written in quick succession may be told as one. `timeout_ms` below 0 is no limit.
 * KVL_TIMEOUT; KVL_NOT_FOUND once table or tag have been removed. The wait sleeps and holds no
 * lock. */
KVL_API int kvl_tag_wait(kvl_tag* tag, int timeout_ms);

#ifdef __cplusplus
}
#endif
