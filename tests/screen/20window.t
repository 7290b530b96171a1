# One window is remembered.
reset / setwin 1 1 5 5 1 / setwin 2 2 6 6 0 / rstwin / is wleft 1 / is wright 5 / is wscrol 1 / rstwin / is wright 5
# Nothing reaches beyond the screen, or runs away in a window that is inside out.
setwin 0 0 200 200 1 / is wright 79 / is wbottom 24
setwin 70 20 60 10 1 / print "x\n\n\f\e[2J\e[K\e[J\e[5;5Hx\b\b\eM\eD" / rest 0 0 79 24
# A private buffer is laid out like the screen, whose rows are marked all the same.
reset shared / setbuf 1 1 5 5 1 / locate 1 1 / print "p" / is private 112 / flags 1 / rest 0 0 -1 -1
unfrez / is all 1
# A window that shares no row with the scroll region has nothing to scroll.
reset / print "\e[20;25r" / setwin 10 5 14 8 1 / locate 10 5
print "ab\ncd\nef\ngh\nij" / screen 10 5 |ab...|cd...|ef...|ij   |.....|
# Narrow windows scroll by themselves, and are cleared to their edges; also when they have one row.
reset / setatr 32 / setwin 10 5 19 8 1 / locate 10 8 / print "0123456789\n" / rest 10 5 19 8
screen 9 6 |.0123456789.|.          .|.          .| / attrs 9 7 0x07 0x20*10 0x07
setwin 50 5 64 6 1 / locate 50 6 / print "\n" / screen 49 5 |................|.               .| / attrs 63 6 0x20*2 0x07
setwin 30 5 33 6 1 / locate 30 6 / print "ab\n" / screen 29 5 |.ab..|.    .| / attrs 30 6 0x20*4 0x07
setwin 70 5 74 5 1 / locate 70 5 / print "abc\n" / screen 69 5 |.     .| / print "x\f" / screen 69 5 |.     .|
rest 10 5 74 8 / screen 69 4 |.......| / screen 69 6 |.......|
# Whose buffer: the window's, and after rstwin the one before.
reset / setbuf 1 1 5 5 1 / setwin 1 1 5 5 1 / locate 1 1 / print "s" / screen 1 1 |s|
rstwin / locate 1 1 / print "b" / is private 98 / screen 1 1 |s| / rstwin / unfrez / is all 0
