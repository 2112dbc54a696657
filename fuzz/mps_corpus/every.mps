NAME          seed FREE
OBJSENSE
    MAX
ROWS
 N  profit
 L  le
 G  ge
 E  eq
 G  ranged
COLUMNS
    x  profit  3
    x  le  1
    x  eq  1
    x  ranged  1
    y  profit  -0.1
    y  le  1
    MARKER                 'MARKER'                 'INTORG'
    i  profit  2
    i  ge  -1
    i  eq  1
    MARKER                 'MARKER'                 'INTEND'
    z  le  1
    z  ge  2
    z  ranged  0.3
    MARKER                 'MARKER'                 'INTORG'
    b  ge  1
    MARKER                 'MARKER'                 'INTEND'
RHS
    RHS  profit  -7.25
    RHS  le  10
    RHS  ge  1
    RHS  eq  3
    RHS  ranged  0.1
RANGES
    RNG  ranged  0.19999999999999998
BOUNDS
 UP BND  x  4.5
 FR BND  y
 LO BND  i  -5
 UP BND  i  7
 LO BND  z  -3
 BV BND  b
SOS
 S1 SOS  set1  1
    x  1
    z  2
 S2 SOS  set2  1
    y  1
    i  2
QUADOBJ
    x  x  2
    x  y  0.5
ENDATA
