/*
 * decode_tree - a C program that uses libtarnmail the way a CGI program
 * does: copies the generalME preset, decodes a message file, prints the
 * message headers and the entity tree, and releases the decoding.
 *
 *   decode_tree FILE
 */
#include <tarnmail.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* The whole file, with the one spare byte the engine writes its last
 * terminator into. */
static char* read_message(const char* path, long* size) {
  FILE* in = fopen(path, "rb");
  char* buf;
  if (in == NULL) return NULL;
  if (fseek(in, 0, SEEK_END) != 0 || (*size = ftell(in)) < 0 || fseek(in, 0, SEEK_SET) != 0) {
    fclose(in);
    return NULL;
  }
  buf = malloc((size_t)*size + 1);
  if (buf != NULL && fread(buf, 1, (size_t)*size, in) != (size_t)*size) {
    free(buf);
    buf = NULL;
  }
  fclose(in);
  return buf;
}

static void print_value(const char* label, const char* value) {
  printf("%s: %s\n", label, value != NULL ? value : "(none)");
}

/* The media type of an entity: its Content-Type up to the parameters. */
static void print_type(const char* ctype_str) {
  size_t n = ctype_str != NULL ? strcspn(ctype_str, "; \t\n") : 0;
  printf("%.*s", (int)n, n != 0 ? ctype_str : "-");
}

/* Depth first, children before the next sibling; one line per entity. */
static void print_tree(const ME* me, int depth) {
  for (; me != NULL; me = me->next) {
    printf("%*s", depth * 2, "");
    if (me->h == NULL) {
      printf("(no header)\n");
    } else {
      const MIME_HEADER* m = &me->h->mime;
      print_type(m->ctype_str);
      printf(" ctype=%d enc=%d datalen=%d", m->ctype, m->enc_type, me->datalen);
      if (m->ctype == MIME_CT_TEXT && me->datalen > 0) {
        size_t line = strcspn(me->body_bgn, "\r\n");
        printf(" first line \"%.*s\"", (int)line, me->body_bgn);
      }
      printf("\n");
    }
    if (me->child != NULL) print_tree(me->child, depth + 1);
  }
}

int main(int argc, char** argv) {
  MIME_DECODE ctx;
  GET_RFC822_HEADER hdr;
  long size = 0;
  char* message;
  char* received;
  int nth = 0;
  int rc;

  if (argc != 2) {
    fprintf(stderr, "usage: decode_tree FILE\n");
    return 2;
  }
  message = read_message(argv[1], &size);
  if (message == NULL) {
    fprintf(stderr, "decode_tree: cannot read %s\n", argv[1]);
    return 2;
  }

  ctx = generalME;
  if (mime_decode_init(&ctx, message, (int)size, argv[1], NULL) != 0) {
    fprintf(stderr, "decode_tree: mime_decode_init failed\n");
    free(message);
    return 1;
  }
  rc = mime_decode_run(&ctx);

  mime_get_rfc822_header(&ctx, &hdr);
  print_value("subject", hdr.subject);
  print_value("from", hdr.from);
  print_value("to (raw)", hdr.to_raw);
  print_value("message-id", hdr.msgid);
  print_value("first Content* field", mime_get_header_field(&ctx, "Content"));
  print_value("MIME-Version", mime_get_header_field2(&ctx, "mime-version"));
  print_value("X-Mailer", mime_get_header_field2(&ctx, "X-Mailer"));
  while ((received = array_get_header_field(&ctx, "Received", &nth)) != NULL) print_value("received", received);
  printf("received fields: %d\n", nth);
  printf("error_code: %d\n", rc);
  print_tree(&ctx.result.me_node, 0);

  mime_decode_shutdown(&ctx);
  printf("arena after shutdown: %s\n", ctx.result.me_info.MIME_ptr == NULL ? "released" : "kept");
  free(message);
  return 0;
}
