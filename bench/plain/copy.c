/* The least that a dump can do: one fread for each record, one memcpy for each field, with a
   separator after it, into one buffer, and one fwrite for each record. No value is looked at. */
#include <stdio.h>
#include <string.h>

static unsigned char header[65536];
static unsigned char record[65536];
static unsigned char line[2 * 65536];
static unsigned lengths[2048];
static char output[1 << 16];

static unsigned le16(const unsigned char* p) { return p[0] | p[1] << 8; }

int main(int argc, char** argv) {
    FILE* table = argc > 1 ? fopen(argv[1], "rb") : NULL;
    if (table == NULL || fread(header, 1, 32, table) != 32) return 1;
    unsigned headerLength = le16(header + 8), recordLength = le16(header + 10);
    unsigned fields = 0;
    if (fread(header + 32, 1, headerLength - 32, table) != headerLength - 32) return 1;
    for (; 32 * fields + 64 < headerLength && header[32 + 32 * fields] != 0x0D; fields++)
        lengths[fields] = header[32 + 32 * fields + 16];
    setvbuf(stdout, output, _IOFBF, sizeof output);
    while (fread(record, 1, recordLength, table) == recordLength) {
        const unsigned char* from = record + 1;
        unsigned char* to = line;
        for (unsigned i = 0; i < fields; i++) {
            memcpy(to, from, lengths[i]);
            from += lengths[i];
            to += lengths[i];
            *to++ = '|';
        }
        *to++ = '\n';
        fwrite(line, 1, (size_t)(to - line), stdout);
    }
    return fclose(table);
}
