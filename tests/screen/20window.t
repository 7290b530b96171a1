# One window is remembered.
reset / setwin 1 1 5 5 1 / setwin 2 2 6 6 0 / rstwin / is wleft 1 / is wscrol 1 / rstwin / is wleft 1
# Nothing reaches beyond the screen, or runs away in a window that is inside out.
setwin 0 0 200 200 1 / is wright 79
setwin 70 20 60 10 1 / print "x\n\n\f\e[2J\e[K\e[J\e[5;5Hx\b\b\eM\eD" / rest 0 0 79 24
# A private buffer is laid out like the screen, whose rows are marked all the same.
reset shared / setbuf 1 1 5 5 1 / locate 1 1 / print "p" / is private 112 / flags 1 / rest 0 0 -1 -1
unfrez / is all 1
# A window that shares no row with the scroll region has nothing to scroll.
reset / print "\e[20;25r" / setwin 10 5 14 8 1 / locate 10 5
print "ab\ncd\nef\ngh\nij" / screen 10 5 |ab...|cd...|ef...|ij   |.....|
