NAME          bad
ROWS
 N  obj
 L  4
ENDATA
