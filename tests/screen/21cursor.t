reset shared / locate 12 3 / is row 3 / is column 12
locate 1 1 / rstloc / at 12 3
# Parked, it stays while output goes on; active again it follows, if output went anywhere.
locate 0 0 / cursact 0 / cursact 0 / print "abc" / at 3 0 / is column 0
cursact 1 / is column 3
cursact 0 / locate 7 7 / cursact 1 / cursact 9 / is row 7 / is column 7
cursiz 1 / is shown 1 / cursiz 0 / is shown 0 / is cursz 0 / rstcur / is cursz 1 / is shown 1
cursiz 7 / is cursz 1 / cursiz 2 / is cursz 2 / rstcur / is cursz 1
reset / cursiz 2 / is shown 0
# The video controller has the cursor, and is asked where it is; the flags are left alone. What is
# printed is shown at once, also with the cursor parked.
reset vga / cursiz 0 / crt 45 14 0 / cursiz 2 / crt 2 12 0 / cursiz 1 / crt 13 14 0
locate 79 24 / crt 13 14 1999 / is row 0
controller 4 / at 68 12 / print "ab" / crt 13 14 1030 / calls update:0
cursact 0 / print "cd" / crt 13 14 1030 / calls update:0 / cursact 1 / crt 13 14 1032
cursact 0 / controller 4 / cursact 1 / crt 13 14 1028
