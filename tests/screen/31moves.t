reset window / print "\e[3;2H" / at 11 7 / print "\e[A" / at 11 6 / print "\e[2b" / at 11 8
print "\e[2C" / at 13 8 / print "\e[d" / at 12 8
# Clamped to the window. 0 moves nothing, but counts as 1 for a position.
print "\e[99A" / at 12 8 / print "\e[5A" / at 12 5 / print "\e[0B\e[0C" / at 12 5
print "\e[99;99f" / at 14 8 / print "\e[0;0h" / at 10 5 / print "\e[252;1F" / at 10 5
reset / print "\n\e[0;0H" / at 0 0
# The column is part of one word: a carry takes a row, a borrow gives one back.
reset / locate 5 5 / print "\e[6D" / at 79 4 / print "\e[255C" / at 78 5
# Saved and restored, into the window of then.
reset window / print "\e[3;4H\e[s\e[H\e[u" / at 13 7 / setwin 0 0 5 5 1 / print "\e[U" / at 5 5
