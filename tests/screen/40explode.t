# A window bursts open, over a screen whose attribute shows where its shadow falls.
reset / setatr 255 / print "\f" / explode 3 2 6 4 60 10 / is frames 2
screen 59 9 |      | DEFG | DEFG | DEFG |      |
attrs 59 9 0xff*8 / attrs 59 10 0xff 0x12*4 0xff*3 / attrs 59 11 0xff 0x13*4 0x07*2 0xff / attrs 59 12 0xff 0x14*4 0x07*2 0xff
attrs 59 13 0xff*3 0x07*4 0xff / attrs 59 14 0xff*8
# At the edges shadow and window are cut.
print "\f" / explode 0 0 9 3 70 4 / screen 69 4 | ABCDEFGHIJ| / attrs 69 8 0xff*3 0x07*8 / attrs 0 5 0xff
print "\f" / explode 0 0 9 3 60 21 / screen 59 21 | ABCDEFGHIJ   | / attrs 59 24 0xff 0x13*10 0x07*2 0xff
print "\f" / explode 0 0 79 24 0 0 / is frames 20 / screen 0 24 |ABC| / attrs 77 23 0x27*3 0x28*3
print "\f" / explode 0 0 79 24 40 20 / screen 38 19 |    |  AB|  AB| / attrs 38 24 0xff*2 0x14*40
print "\f" / explode 0 0 79 24 -40 -20 / screen 0 0 |IJKL| / screen 38 4 |OP  |    | / attrs 38 4 0x28*2 0x07*2
print "\f" / explode 5 5 15 20 5 5 / is frames 8 / screen 4 5 | FGHIJKLMNOP | / attrs 4 20 0xff 0x24*11 0x07*2 0xff
# What lies outside the source is not shown, however far.
reset / nsexploto -3 -1 2 1 10 10 / screen 12 10 |.....|.ABC.|.ABC.|.....| / rest 13 11 15 12
reset / nsexploto 78 23 90 30 10 10 / screen 9 9 |....|.OP.|.OP.|....|
reset / explode -2147483648 -2147483648 2147483647 2147483647 2147483647 -2147483648 / rest 0 0 -1 -1
reset / explode 2147483647 0 -2147483648 24 0 0 / nsexploto 0 0 79 24 -2147483648 2147483647 / rest 0 0 -1 -1
# The corners come first, two columns by a row each, around the centre, and slide apart. Where a
# side is odd they meet.
reset / nsexploto 0 0 9 3 20 4 / is frames 3 / frame 1
screen 21 4 |........|..ABIJ..|..ABIJ..|........| / attrs 23 5 0x10*4 / attrs 23 6 0x13*4
reset / nsexploto 0 0 66 8 7 8 / is frames 17 / frame 1 / rest 39 12 41 12
screen 39 12 |ABC| / attrs 39 12 0x18*3 / frame 2 / rest 37 11 43 13 / frame 17 / rest 7 8 73 16
animated 0 / explode 0 0 66 8 7 8 / is frames 1 / screen 7 8 |ABC| / attrs 5 17 0x07*70
# explode stays where it was on its screen; text can be placed in it.
reset / explodehere 10 5 20 8 0 0 / prat 1 1 "!" / screen 9 5 |.KLM|.K!M|
