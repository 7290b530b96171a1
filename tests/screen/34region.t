reset / print "\e[5;20r" / is rgntop 4 / is rgnbot 19 / at 0 0
print "\e[20;5r\e[0;9r\e[9;0r\e[2;26r\e[3;3R" / is rgntop 4 / is rgnbot 19 / print "\e[H" / at 0 4
# Above it lines are free; in it only its rows scroll and clear.
reset shared / print "\e[2;3rtop\none\ntwo\nsix" / flags 0 1 2 / screen 0 0 |top.|two.|six |....|
print "\f" / at 0 1 / screen 0 0 |top.|    |    |....|
# Rows count from the window's top; without numbers it is the first one.
reset window / print "\e[2;3r" / is rgntop 6 / is rgnbot 7 / print "\e[r" / is rgntop 5 / is rgnbot 5
# Off, the whole window scrolls. Switching on cuts the region to the window, for good.
ansion 0 / print "a\nb\nc\nd\ne" / screen 10 5 |b....|c....|d....|e    |
reset / setwin 0 10 79 14 1 / ansion 1 / is rgntop 10 / is rgnbot 14
rstwin / ansion 0 / ansion 1 / is rgnbot 14
