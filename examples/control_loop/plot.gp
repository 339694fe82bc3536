# Draws a run of control_loop from the files that its options --record, --latency and --report write:
# gnuplot -e "signals='FILE.csv'; latency='FILE.csv'; report='FILE.json'; picture='FILE.svg'" plot.gp
set terminal svg size 1000,960 font 'Helvetica,Arial,sans-serif,15' background '#ffffff'
set output picture
set datafile separator comma

# The report holds one key in a line; the first of a name is the one that is meant.
text(key) = system(sprintf("sed -n 's/^ *\"%s\": \"\\{0,1\\}\\([^\",]*\\).*/\\1/p' '%s' | head -n 1", key, report))
number(key) = real(text(key))
duration(key) = number(key) < 1000 ? sprintf('%.0f us', number(key)) : sprintf('%.2f ms', number(key) / 1000)

ink = '#2d3440'
set border 3 linecolor rgb '#8a93a3'
set tics nomirror out scale 0.5 textcolor rgb ink
set grid ytics linecolor rgb '#e4e7ec' linetype 1
set key at graph 1.0, 1.14 right horizontal samplen 2.5 textcolor rgb ink
set style line 1 linecolor rgb '#8a93a3' linewidth 2
set style line 2 linecolor rgb '#e0803c' linewidth 2 dashtype (8, 5)
set style line 3 linecolor rgb '#2a6fbb' linewidth 2.5
set style line 4 linecolor rgb '#8ccfc6'
set style line 5 linecolor rgb '#1d6f64' linewidth 2
set style line 6 linecolor rgb '#d08a00' linewidth 2
set style line 7 linecolor rgb '#c2571a' linewidth 2
set style line 8 linecolor rgb '#a3243b' linewidth 2

set multiplot title 'A closed loop at 1 kHz, paced by the interrupt of its board' \
    font ',20' textcolor rgb ink offset 0, -0.4
set lmargin at screen 0.1
set rmargin at screen 0.975

set tmargin at screen 0.895
set bmargin at screen 0.645
set ylabel 'volts' textcolor rgb ink
set xrange [0:*] noextend
set format x ''
set offsets 0, 0, 0.5, 0
plot signals using 1:2 every ::1 with lines linestyle 2 title 'set point', \
     signals using 1:3 every ::1 with lines linestyle 3 title 'response'

set tmargin at screen 0.595
set bmargin at screen 0.475
set xlabel 'time (s)' textcolor rgb ink
set format x '%g'
set ytics 10
set yrange [-12:12]
set offsets 0, 0, 0, 0
set key at graph 1.0, 1.3
plot signals using 1:4 every ::1 with lines linestyle 1 title 'output of the controller'

# Buckets grow wider with the latency: their height is the number of steps per microsecond.
width(from, upTo) = upTo - from + 0.001
set xrange [*:*]
set yrange [*:*]
stats latency using 3:($3 / width($1, $2)) every ::1 name 'density' nooutput
stats latency using 1:2 every ::1 name 'bounds' nooutput
lowest = density_min_y / 2
highest = density_max_y * 2

set tmargin at screen 0.315
set bmargin at screen 0.085
set label 1 sprintf('From the interrupt to the step: %s steps in %.4g s, %s overran, %.4g %% of the periods skipped', \
    text('steps'), number('duration_s'), text('overruns'), number('skipped_percent')) \
    at graph 0, 1.27 left textcolor rgb ink font ',16'
set xlabel 'latency (us)'
set ylabel 'steps per us'
set logscale xy
least = bounds_min_x > 0.1 ? bounds_min_x : 0.1
decades = log10(bounds_max_y / least)
digits = decades < 1.5 ? '1 1.5 2 3 4 5 7' : decades < 3 ? '1 2 5' : '1'
set xtics (0.1)
do for [decade = -1:9] {
    do for [digit in digits] {
        set xtics add (real(digit) * 10 ** decade)
    }
}
set ytics auto
set format y '%g'
set yrange [lowest:highest]
set xrange [least * 0.9:bounds_max_y * 1.1]
set style fill solid 1 noborder
set key at graph 1.0, 1.18 maxrows 1 samplen 1 width -1 font ',14'
do for [mark in 'median_us:5 p99_us:6 p999_us:7 max_us:8'] {
    at = number(mark[1:strstrt(mark, ':') - 1])
    set arrow from first at, graph 0 to first at, graph 1 nohead front linestyle int(mark[strstrt(mark, ':') + 1:*])
}
plot latency using 1:3:1:2:(lowest):($3 / width($1, $2)) every ::1 with boxxyerror linestyle 4 notitle, \
     NaN with lines linestyle 5 title 'median: '.duration('median_us'), \
     NaN with lines linestyle 6 title '99 %: '.duration('p99_us'), \
     NaN with lines linestyle 7 title '99.9 %: '.duration('p999_us'), \
     NaN with lines linestyle 8 title 'maximum: '.duration('max_us')
unset multiplot
