reset / print "\e[31;44m" / is attr 20 / print "\e[m" / is attr 7 / print "\e[1;5;33;42M" / is attr 174
print "\e[2;6m" / is attr 166 / print "\e[7m" / is attr 240 / print "\e[8m" / is attr 0
setatr 31 / print "\e[7m" / is attr 120 / print "\e[4m" / is attr 121
print "\e[3;9;29;38;39;48;49;50;99;255m" / is attr 121 / print "\e[35;46m" / is attr 61 / at 0 0
# Plain and interpreted text have an attribute each.
reset / print "\e[32m" / ansion 0 / setatr 112 / print "\e[1m" / screen 0 0 |[1m.|
attrs 0 0 0x70*4 0x07 / ansion 1 / is attr 2
# A sequence that was open goes on when interpretation does.
print "\e[3" / ansion 0 / print "1m" / is ansflg 15 / ansion 1 / print "1m" / is attr 4
