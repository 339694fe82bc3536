# Draws a run of control_loop: gnuplot -e "signals='FILE.csv'; latency='FILE.csv'; picture='FILE.svg'" plot.gp
set terminal svg size 1000,860 font 'Helvetica,Arial,sans-serif,15' background '#ffffff'
set output picture
set datafile separator comma

ink = '#2d3440'
set border 3 linecolor rgb '#8a93a3'
set tics nomirror out scale 0.5 textcolor rgb ink
set grid ytics linecolor rgb '#e4e7ec' linetype 1
set key at graph 1.0, 1.12 right horizontal samplen 2.5 textcolor rgb ink
set style line 1 linecolor rgb '#8a93a3' linewidth 2
set style line 2 linecolor rgb '#e0803c' linewidth 2 dashtype (8, 5)
set style line 3 linecolor rgb '#2a6fbb' linewidth 2.5
set style line 4 linecolor rgb '#2a9d8f'

set multiplot title 'A closed loop at 1 kHz, paced by the interrupt of its board' \
    font ',20' textcolor rgb ink offset 0, -0.4
set lmargin at screen 0.085
set rmargin at screen 0.975

set tmargin at screen 0.885
set bmargin at screen 0.60
set ylabel 'volts' textcolor rgb ink
set xrange [0:*] noextend
set format x ''
set offsets 0, 0, 0.5, 0
plot signals using 1:2 every ::1 with lines linestyle 2 title 'set point', \
     signals using 1:3 every ::1 with lines linestyle 3 title 'response'

set tmargin at screen 0.545
set bmargin at screen 0.41
set xlabel 'time (s)' textcolor rgb ink
set format x '%g'
set ytics 10
set yrange [-12:12]
set offsets 0, 0, 0, 0
set key at graph 1.0, 1.28
plot signals using 1:4 every ::1 with lines linestyle 1 title 'output of the controller'

# Buckets grow wider with the latency: their height is the number of steps per microsecond.
width(from, upTo) = upTo - from + 0.001
set tmargin at screen 0.29
set bmargin at screen 0.09
set xlabel 'from the interrupt to the step (us)'
set ylabel 'steps per us'
set ytics auto
set yrange [0:*]
set xrange [0:*] extend
set style fill solid 0.8 noborder
unset key
plot latency using 1:3:1:2:(0):($3 / width($1, $2)) every ::1 with boxxyerror linestyle 4
unset multiplot
