/*
 * mime_rmscript_internal.h - the tables and matchers behind script and tag
 * removal.  Not installed; tests reach them through the static build.
 */
#ifndef TARNMAIL_MIME_RMSCRIPT_INTERNAL_H
#define TARNMAIL_MIME_RMSCRIPT_INTERNAL_H

#include <array>
#include <cstddef>

#include "tarnmail/filter.h"

/* One way of writing one letter of a defused word, valid in one state of
 * the word automaton. */
struct element_t {
  const char* pattern;        /* the letter, or its numeric entity */
  unsigned char len;          /* bytes compared */
  unsigned char unicode;      /* 1 for an entity: a following ';' belongs to it */
  unsigned char curr_status;  /* state in which the row applies */
  unsigned char next_status;  /* state after it */
};

/* An element that remove_script_block can drop. */
struct tag_pattern_t {
  const char* pattern;     /* element name, lower case */
  unsigned char len;       /* its length */
  unsigned char casefold;  /* 1: compared ignoring case */
  int flag;                /* the nFlags bit that selects the row */
  int pair;                /* 1: content runs to an end tag */
};

/* State 0 starts a word; reaching kWordSeen means a whole word was read. */
constexpr int kWordSeen = 20;
constexpr int kStates = kWordSeen + 1;
/* Every letter is accepted in eight forms, always in the same order. */
constexpr int kFormsPerLetter = 8;
constexpr size_t kMyFilterRows = 176;

/* The word automaton, ended by a row with a null pattern. */
extern const std::array<element_t, kMyFilterRows + 1> g_my_filter;
/* Droppable elements, ended by a row with a null pattern. */
extern const std::array<tag_pattern_t, 6> g_rm_tag_list;
/* The x written over a word's last letter, by its form (row index mod 8). */
extern const char* const g_subs_char[9];

/* Bytes matched at str (avail bytes readable there) by the first row of
 * state status in table order, a ';' after an entity included; *idx is that
 * row, or -1 with a result of 0 when none matches. */
int script_match(const char* str, size_t avail, int status, int* idx);

/* 1 when the text after the '<' at pcPtr (avail bytes readable from pcPtr
 * on, the '<' included) begins with the name of a row selected by nFlags,
 * rows tried in table order; *pnMatchedIdx is that row. */
int tag_match(const char* pcPtr, size_t avail, int nFlags, int* pnMatchedIdx);

#endif /* TARNMAIL_MIME_RMSCRIPT_INTERNAL_H */
