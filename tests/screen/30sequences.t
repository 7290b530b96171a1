# What is not understood is shown; another escape character starts anew. Bytes shown so mark no row.
reset shared / print "\exy\e\e[3;1H\e[12;5q\e[1J\e[R\e[\x0d" / flags 0 / at 12 2
screen 0 0 |xy.| / screen 0 2 |[q[J[R[.|
# Parameters are bytes; the 21st and later are ignored; an empty one keeps what its slot held.
reset / locate 5 5 / print "\e[256A" / at 5 5 / print "\e[258B" / at 5 7 / print "\e[999999998D" / at 7 6
locate 5 20 / print "\e[1034A and more to read" / at 22 10
print "\e[0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;32;41m" / is attr 2
print "\e[;;;;;;;;;;;;;;;;;;;;;;;;31m" / is attr 2 / print "\e[m\e[0;0;34m\e[0;0;m" / is attr 7
print "\e[0;0;1;34;45m\e[0;0;;;44m" / is attr 25 / print "\e[;5H" / at 4 0
# Index and reverse index are the only movements that scroll.
reset window / print "ab\ncd\ncut\nxy\eD" / at 10 8 / screen 10 5 |cd...|cut..|xy...|     |
locate 12 5 / print "\eM" / at 10 5 / screen 10 5 |     |cd...|cut..|xy...|
locate 12 7 / print "\eM" / at 12 6 / print "\eD\eD" / at 12 8
# On the screen's first row the row wraps: to the bottom, scrolling up.
reset / print "abc\eM" / at 0 24 / screen 0 0 |...| / screen 0 23 |...|   |
