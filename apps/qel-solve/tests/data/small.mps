* A small mixed-integer model, written by hand: the optimum is 18.
NAME          small
OBJSENSE
    MAX
ROWS
 N  profit
 L  c1
 G  c2
 G  c3
COLUMNS
    x         profit    3              c1        1
    x         c2        1              c3        1
    MARKER    'MARKER'  'INTORG'
    y         profit    2              c1        1
    y         c2        -1
    MARKER    'MARKER'  'INTEND'
    z         profit    4              c1        2
    z         c3        1
RHS
    RHS       c1        7              c2        -2
    RHS       c3        2
RANGES
    RNG       c3        3
BOUNDS
 UP BND       x         4
 UP BND       y         10
 BV BND       z
ENDATA
