# A fatal error bursts open, waits to be read, is reported and logged, and ends the program.
reset / setatr 255 / print "\f" / fatal message "Cannot read x" / is status 90 / is waited 3000170 / is frames 18
told "closed \n##-###-## ##:##:## Cannot read x\nCannot read x\n"
screen 7 8 |\xdb\xdf\xdf| / attrs 6 8 0xff 0xde*67 0xff / screen 72 8 |\xdf\xdb|
screen 7 9 |\xdb \xdb\xdf\xdf| / attrs 7 9 0xde*2 0x4e*63 0xde*2 0x07*2 / screen 70 9 |\xdf\xdb \xdb|
screen 7 10 |\xdb \xdb  ##-###-## ##:##:##  | / attrs 7 10 0xde*2 0x4e 0x4f*61 0x4e 0xde*2
screen 10 11 |  Cannot read x  | / attrs 12 11 0x4f*20
screen 10 14 |  Unexpected exit, no recovery method supplied... | / attrs 12 14 0x4f*47
screen 7 15 |\xdb \xdb\xdc\xdc| / screen 70 15 |\xdc\xdb \xdb| / attrs 7 15 0xde*2 0x4e*63 0xde*2
screen 7 16 |\xdb\xdc\xdc| / screen 72 16 |\xdc\xdb| / attrs 7 17 0xff*2 0x07*67 0xff
# The state is told too, while the program's own report is made; then that line is empty again.
reset / fatal told "x" / is status 90
told "CATASTRO.TXT:CF:closed \n##-###-## ##:##:## x\nhere,\nx\n"
screen 12 12 |here, | / screen 12 13 |                                     |
# A fatal error within one ends at once.
reset / fatal twice "first" / is status 80 / screen 12 11 |first| / screen 10 14 |           \x10\x10\x10 YOU SHOULD REBOOT YOUR COMPUTER \x11\x11\x11|
attrs 21 14 0x4e*10 / told "\n##-###-## ##:##:## first\nhere,\nfirst\n"
# Neither a scroll region nor an open sequence spoils it.
reset / print "\e[1;5r\e[1" / fatal message "12;3H whole" / screen 7 10 |\xdb \xdb  ##-###-## ##:##:##  |
screen 10 11 |  12;3H whole  | / screen 12 14 |Unexpected exit|
# Core or none, before a method is chosen, without a message; no memory, not even for the pop-up.
fatal core "x" / is status 3 / fatal early "soon" / is status 90 / told "closed \n##-###-## ##:##:## soon\nsoon\n"
reset / color 0 / fatal exit / is status 90 / screen 12 12 |Unexpected exit| / attrs 7 8 0x8f*67 / told ""
reset / fatal memory / is status 90 / told "\n##-###-## ##:##:## There is not enough memory to continue.\n"
attrs 7 8 0x5e*67 / screen 12 12 |Please either reduce your memory requirements| / screen 12 13 |or install more memory, and try again.| / attrs 12 14 0x4e*9
reset / fatal tiles / is status 90 / told "closed \n##-###-## ##:##:## NOT ENOUGH MEMORY\nNOT ENOUGH MEMORY\n"
# The message is used as a format again; it is cut. A report that cannot be opened.
reset / fatal message "100%% %s%n%*d%%" / screen 10 11 |  100% %s%n%*d% |
told "closed \n##-###-## ##:##:## 100% %s%n%*d%\n100%% %s%n%*d%%\n"
reset / fatal unreported "x" / is status 90
screen 12 12 |(Can't open CATASTRO.TXT)| / screen 12 13 |(Can't re-open CATASTRO.TXT)| / told "closed x\n"
