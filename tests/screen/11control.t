# Line feed (with carriage return) and carriage return. At the bottom only the window scrolls.
reset window / print "ab\ncd\r" / at 10 6 / screen 10 5 |ab...|cd...| / is lstctl 13
print "\nef\ngh\nij" / at 12 8 / rest 10 5 14 8
screen 9 4 |.......|.cd....|.ef....|.gh....|.ij   .|.......|
# Without scrolling the last line is written over.
setwin 10 5 14 8 0 / print "\nk" / screen 10 8 |kj   | / at 11 8
# Backspace leaves the attribute, crosses lines, and stops at the start.
reset window / setatr 48 / print "abcdefg" / setatr 7 / flags 5 6
print "\b\b" / at 10 6 / screen 10 5 |abcde|  ...| / flags 6
print "\b" / at 14 5 / screen 10 5 |abcd | / attrs 14 5 0x30 / flags 5
print "\b\b\b\b\b\b\b" / at 10 5 / screen 9 4 |.......|.     .| / rest 10 5 14 6
# Above a scroll region it goes on, up to the screen's first row.
reset window / print "\e[3;4r\b" / at 14 4 / screen 13 4 |. .| / rest 14 4 14 4
reset / print "\e[3;4r\bx" / screen 0 0 |x.|
reset window / print "abc\nx\f" / at 10 5 / is lstctl 12 / rest 10 5 14 8
screen 10 5 |     |     |     |     |
belper 300 / print "\a" / calls bell:300 / is lstctl 7
# The reverse line feed: at the top it scrolls down, elsewhere it goes down.
reset window / print "top\nlow" / flags 5 6 / dorevl / at 10 7 / flags
locate 12 5 / dorevl / at 10 5 / flags 5 6 7 8 / screen 10 5 |     |top..|low..|.....|
