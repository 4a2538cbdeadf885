/* The floor for a dump: reads each record with fread and copies the raw bytes of its fields, each
   followed by a separator, to standard output. No value is looked at. */
#include <stdio.h>
#include <string.h>

static unsigned char header[65536];
static unsigned char record[65536];
static char output[1 << 16];

static unsigned le16(const unsigned char* p) { return p[0] | p[1] << 8; }

int main(int argc, char** argv) {
    FILE* table = argc > 1 ? fopen(argv[1], "rb") : NULL;
    if (table == NULL || fread(header, 1, 32, table) != 32) return 1;
    unsigned headerLength = le16(header + 8), recordLength = le16(header + 10);
    unsigned fields = 0;
    if (fread(header + 32, 1, headerLength - 32, table) != headerLength - 32) return 1;
    while (32 * fields + 64 < headerLength && header[32 + 32 * fields] != 0x0D) fields++;
    setvbuf(stdout, output, _IOFBF, sizeof output);
    while (fread(record, 1, recordLength, table) == recordLength) {
        const unsigned char* at = record + 1;
        for (unsigned i = 0; i < fields; i++) {
            unsigned length = header[32 + 32 * i + 16];
            fwrite(at, 1, length, stdout);
            fputc('|', stdout);
            at += length;
        }
        fputc('\n', stdout);
    }
    return fclose(table);
}
