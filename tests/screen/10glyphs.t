# A glyph takes the current attribute and marks its row.
reset shared / setatr 31 / print "ab"
screen 0 0 |ab.| / attrs 0 0 0x1f*2 0x07 / at 2 0 / flags 0 / rest 0 0 1 0
# Only six control characters are no glyphs.
reset / print "\x01\x09\x0b\x1f\x7f\x9b and on" / screen 0 0 |	› and on.|
# The wrap is immediate: the screen's last cell scrolls it.
reset shared / locate 75 24 / print "12345"
at 0 24 / screen 75 23 |12345|     |
flags 0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22 23 24
# What print calls return, and where they print. Two format twice, the second time bare.
reset x / print "50%" / is count 3 / calls update:0 / print "" / is count 0 / at 3 0
proff 9 4 / prat 3 4 "100%% %d %" / is count 9 / screen 12 8 |100% %d %.|
printfat 70 24 "100%% wraps here" / is count 16 / screen 70 23 |100%% wrap| / screen 0 24 |s here  |
rstloc / at 21 8 / pat 0 0 "top" / is count 3 / screen 0 0 |top|
