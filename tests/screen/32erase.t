reset shared / setatr 23 / locate 3 2 / print "\e[K" / attrs 2 2 0x07 0x17*77 / flags 2
print "\e[2;74H\e[2K" / attrs 72 1 0x07 0x17*7 / flags 1 / locate 78 9 / clreol / attrs 77 9 0x07 0x17*2
reset window / setatr 23 / locate 12 6 / print "\e[J" / at 12 6 / rest 10 6 14 8
screen 10 5 |.....|..   |     |     | / print "\e[2J" / at 10 5 / attrs 9 5 0x07 0x17*5 0x07
# The same call goes on below the cleared rows; the next one at the cursor.
reset shared / setwin 10 5 14 20 1 / print "\e[2;4r" / locate 12 6 / print "\e[0Jxy\bz" / at 14 6
screen 10 6 |..   |     |     |xz...| / print "w" / screen 10 6 |..  w| / flags 6 7 8
# Below the screen there is nothing. A row below the region is itself cleared.
reset shared / locate 0 24 / print "\e[Jlost, whatever it is" / at 20 24 / rest 0 24 79 24
screen 0 24 |      | / print "\e[1;3r" / locate 2 9 / print "\e[J" / screen 0 9 |..  |....|
