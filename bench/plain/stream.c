/* Reads a table as an Arrow stream to its end and throws the arrays away:
   stream TABLE [COLUMNS [FIRST END]] */
#include <stdio.h>
#include <stdlib.h>

#include "arrow/mira_arrow.h"

int main(int argc, char** argv) {
    struct MiraArrowOptions options = {sizeof options};
    struct ArrowArrayStream stream;
    char message[512] = "";
    if (argc < 2) return 2;
    if (argc > 2 && argv[2][0] != '-') options.columns = argv[2];
    if (argc > 4) {
        options.first = strtoull(argv[3], NULL, 10);
        options.end = strtoull(argv[4], NULL, 10);
    }
    if (mira_arrow_open(argv[1], &options, &stream, message, sizeof message) != 0) {
        fprintf(stderr, "%s\n", message);
        return 1;
    }
    long long rows = 0;
    for (;;) {
        struct ArrowArray array;
        int error = stream.get_next(&stream, &array);
        if (error != 0) {
            fprintf(stderr, "%s\n", stream.get_last_error(&stream));
            return 1;
        }
        if (array.release == NULL) break;
        rows += array.length;
        array.release(&array);
    }
    stream.release(&stream);
    printf("%lld\n", rows);
    return 0;
}
