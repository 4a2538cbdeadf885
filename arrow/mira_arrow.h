/* Tables of the dBase family as Arrow streams: one function that opens a table, one that describes
 * it. Plain C; nothing of Arrow is needed but the two structs of its C interface, which stand here.
 *
 * Columns, by the letter of the field:
 *
 *   C, V, M                   large_utf8; bytes that are no text as "base64:..."
 *   N, F without decimals     int64 up to 18 wide, decimal128(w,0) to 38, large_utf8 above that
 *   N, F with decimals        float64; with exact_decimals decimal128(w,d) to 38, large_utf8 above
 *   I, +                      int32
 *   B of 8 bytes, O           float64
 *   Y                         decimal128(19,4)
 *   D                         date32
 *   T, @                      timestamp in microseconds, without a zone
 *   L                         bool
 *   G, P, Q, W, B as memos    large_binary, as every other letter
 *   _record, _deleted         int64, from 1; bool
 *
 * They follow from the descriptors alone. A blank C or V is an empty text. Blank numbers, dates and
 * logicals, memos that are not there, nulls and what is no value are null. A number that its column
 * cannot hold ends the stream with an error. Fields carry the metadata "mira:type", "mira:length"
 * and "mira:decimals".
 *
 * A stream may move between threads but not be used by two at once; streams are independent of each
 * other, also those of one table. Texts are UTF-8. */
#ifndef MIRA_ARROW_H
#define MIRA_ARROW_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef ARROW_C_DATA_INTERFACE
#define ARROW_C_DATA_INTERFACE

#define ARROW_FLAG_DICTIONARY_ORDERED 1
#define ARROW_FLAG_NULLABLE 2
#define ARROW_FLAG_MAP_KEYS_SORTED 4

struct ArrowSchema {
    const char* format;
    const char* name;
    const char* metadata;
    int64_t flags;
    int64_t n_children;
    struct ArrowSchema** children;
    struct ArrowSchema* dictionary;
    void (*release)(struct ArrowSchema*);
    void* private_data;
};

struct ArrowArray {
    int64_t length;
    int64_t null_count;
    int64_t offset;
    int64_t n_buffers;
    int64_t n_children;
    const void** buffers;
    struct ArrowArray** children;
    struct ArrowArray* dictionary;
    void (*release)(struct ArrowArray*);
    void* private_data;
};

#endif

#ifndef ARROW_C_STREAM_INTERFACE
#define ARROW_C_STREAM_INTERFACE

struct ArrowArrayStream {
    int (*get_schema)(struct ArrowArrayStream*, struct ArrowSchema* out);
    int (*get_next)(struct ArrowArrayStream*, struct ArrowArray* out);
    const char* (*get_last_error)(struct ArrowArrayStream*);
    void (*release)(struct ArrowArrayStream*);
    void* private_data;
};

#endif

#if defined(__GNUC__)
#define MIRA_ARROW_API __attribute__((visibility("default")))
#else
#define MIRA_ARROW_API
#endif

/* What the functions return. */
enum {
    MIRA_ARROW_OK = 0,
    MIRA_ARROW_NO_FILE = 1,  /* there is no such file */
    MIRA_ARROW_NO_TABLE = 2, /* it is no table, cannot be read, or a change was interrupted */
    MIRA_ARROW_NO_FIELD = 3, /* a name in columns or types is no field's */
    MIRA_ARROW_NO_PAGE = 4,  /* a code page that nobody here knows */
    MIRA_ARROW_BAD_OPTION = 5,
    MIRA_ARROW_NO_MEMORY = 6
};

/* Zeros and nulls stand for the defaults. size is sizeof(struct MiraArrowOptions) of the caller. */
struct MiraArrowOptions {
    size_t size;
    const char* columns;    /* "CODE,PRICE": these, in this order; null: all, "": none */
    const char* where;      /* only records that satisfy the filter */
    const char* code_page;  /* null or "": what the table says */
    const char* types;      /* "DOSIS=double,NOTE=binary": double, int64, decimal, text, binary */
    uint64_t first, end;    /* physical records from 0, end excluded; end 0: all */
    uint32_t batch_records; /* rows of an array; 0: 65536, fewer where they are long */
    uint8_t deleted;        /* 0 leaves deleted records out, 1 includes them, 2 gives them alone */
    uint8_t exact_decimals;
    uint8_t long_names; /* names from the database container */
    const char* source; /* the name of a last column with the path of the table; null: none */
    /* Called once when the stream has come to its end or to an error, on the thread that reads it,
     * with what was met as JSON: {"notes":[...],"faults":[{"file","kind","count","record","field",
     * "sentence"}...]}. Not called for a stream that is released before. */
    void (*done)(void* context, const char* report);
    void* context;
};

/* Opens a table as a stream, which the caller releases. The table's file stays open until then.
 * options may be null. On failure a message goes into the room bytes of message, always terminated
 * when there is room, and the stream stays as it is. */
MIRA_ARROW_API int mira_arrow_open(const char* table, const struct MiraArrowOptions* options,
                                   struct ArrowArrayStream* stream, char* message, size_t room);
/* Several tables of one structure, one after the other; their columns have to agree in name and
 * type. first and end count in each of them. The first is opened at once, each other when the
 * stream comes to it. */
MIRA_ARROW_API int mira_arrow_open_many(const char* const* tables, size_t count,
                                        const struct MiraArrowOptions* options,
                                        struct ArrowArrayStream* stream, char* message,
                                        size_t room);

/* What is known of a table without reading its records, as one JSON object; deleted records and the
 * entries of indexes are not counted, but null. On failure the message stands there instead; null
 * only without memory. To be released by mira_arrow_free. */
MIRA_ARROW_API int mira_arrow_facts(const char* table, const char* code_page, char** json);
MIRA_ARROW_API void mira_arrow_free(char* json);

/* For the module miralib: zeroed memory for a structure in a capsule of Python, and the destructors
 * of such capsules, which release the structure unless it was moved away, and free it. They ask
 * PyCapsule_GetPointer, given once before. */
MIRA_ARROW_API void* mira_arrow_new(size_t size);
MIRA_ARROW_API void mira_arrow_capsules(void* (*pointer_of)(void* capsule, const char* name));
MIRA_ARROW_API void mira_arrow_destroy_stream(void* capsule);
MIRA_ARROW_API void mira_arrow_destroy_schema(void* capsule);

#ifdef __cplusplus
}
#endif

#endif
