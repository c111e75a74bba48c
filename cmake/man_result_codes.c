/*
 * Copies the bmcredfish(3) template, replacing its marker comment line with
 * the header's result-code table, so the man page never holds a copy of it.
 * Usage: man_result_codes TEMPLATE OUTPUT
 */
#include <stdio.h>
#include <string.h>

#include "bmcredfish.h"

static const char kMarker[] = ".\\\" result codes, generated from bmcredfish.h\n";

/* Writes text so that roff shows it literally. */
static void put_roff(FILE* out, const char* text) {
  if (text[0] == '.' || text[0] == '\'') fputs("\\&", out);
  for (; *text; ++text) {
    if (*text == '\\')
      fputs("\\e", out);
    else if (*text == '-')
      fputs("\\-", out);
    else
      fputc(*text, out);
  }
}

static void put_codes(FILE* out) {
#define BMCREDFISH_MAN_CODE_(name, value, text)          \
  fprintf(out, ".TP\n.BR %d \" (" #name ")\"\n", value); \
  put_roff(out, text);                                   \
  fputc('\n', out);
  BMCREDFISH_RESULT_CODES(BMCREDFISH_MAN_CODE_)
#undef BMCREDFISH_MAN_CODE_
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: man_result_codes TEMPLATE OUTPUT\n");
    return 2;
  }
  FILE* in = fopen(argv[1], "r");
  FILE* out = fopen(argv[2], "w");
  if (!in || !out) {
    perror("man_result_codes");
    return 1;
  }
  char line[4096];
  int found = 0;
  while (fgets(line, sizeof line, in)) {
    if (strcmp(line, kMarker) == 0) {
      put_codes(out);
      found = 1;
    } else {
      fputs(line, out);
    }
  }
  fclose(in);
  if (fclose(out) != 0 || !found) {
    fprintf(stderr, "man_result_codes: %s\n", found ? "write failed" : "no marker line");
    return 1;
  }
  return 0;
}
