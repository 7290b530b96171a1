// A call as the caller knows it: language, menu, who is on, time, goodbye.
#pragma once

#include "tools/harbour/line.h"

namespace harbour {

// A caller has come. The socket is the line's.
void answer(Line &line, int caller, const std::string &from);

// A key, while no program has it.
void keypressed(Line &line, char key);

// Back at the menu.
void showmenu(Line &line);

// Ends what has run out of time, warns who soon will; sets `due` anew.
void look();

// Ends the call, with a text.
void endcall(Line &line, int number, Words words = {});

} // namespace harbour
