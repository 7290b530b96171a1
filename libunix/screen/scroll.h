// Line control, scrolling and clearing in the current window, on the output registers. The scroll
// rows are the window's, less what lies outside the scroll region while interpretation is on.
// Cleared cells are spaces with the current attribute. Rows whose cells change are marked.
#pragma once

namespace plex {

void docr();   // carriage return
void donewl(); // line feed with carriage return; scrolls at the bottom of the scroll rows
void dorevl(); // at the top of the scroll rows scrolls down; anywhere else moves down a row
void ffeed();  // clears the scroll rows and goes to their start
void doback(); // backspace that erases, across the start of a line to the end of the one above
void dobell(); // the console's bell

// Clear to the window's right edge: from si, and from the cursor.
void ceolut();
void clreol();

// Clears from si to the end of the scroll rows. Leaves dx, but si at the start of the row below the
// cleared ones, where bytes of the same piece of output go on.
void ceoscn();

} // namespace plex
