// What the journal and the machine object say in words.
#pragma once

#include "event.h"

#include <string>

struct sentence {
  const char *event; // the journal's field DRAVEL_EVENT
  std::string text;
  std::string reason; // its field DRAVEL_REASON; "": none
};
sentence sentence_of(const order::say &said);

const char *word_of(cause by);
const char *word_of(screen_state state);
const char *word_of(alarm_owner owner);

// What is missing and what does not work because of it.
std::string sentence_of(problem what, int error);

std::string sentence_of(postponed why); // "" for kNot

// Why a test did not take place; `error` is that of order::answer.
std::string refusal_of_test(int error);
