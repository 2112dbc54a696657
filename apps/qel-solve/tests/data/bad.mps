NAME          bad
ROWS
 N  obj
 L  c
COLUMNS
    x         obj       1              c         1
BOUNDS
 XX BND       x         4
ENDATA
