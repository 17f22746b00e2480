package com.kelvane.media.test;

import java.nio.file.Path;

/**
 * Opens a page of results in chromium, from a web server and from its file, and has it play. Arguments: its directory, and
 * for each of the two what is to be found, as a regular expression; then the address of a live page, and what is found there.
 */
public final class PageCheck {
    private static final String PLAYS = """
            const done = arguments[0], video = document.querySelector('video'), begin = Date.now();
            const all = selector => [...document.querySelectorAll(selector)];
            function faults() { // on a telephone, and without a mouse
              document.documentElement.style.width = '375px';
              const found = all('main').length === 1 ? [] : ['no main landmark'];
              const wide = all('body *').filter(part => !part.closest('.wide *') && part.getBoundingClientRect().right > 375);
              if (wide.length) found.push('too wide: ' + wide[0].outerHTML.slice(0, 40));
              const scrolls = all('body *').filter(part => part.scrollWidth > part.clientWidth && getComputedStyle(part).overflowX === 'auto');
              if (!scrolls.length || scrolls.some(part => part.tabIndex < 0)) found.push('scrolls, but not by keys');
              if (all('svg text').some(text => text.getBoundingClientRect().height < 10)) found.push('labels that nobody can read');
              document.documentElement.style.width = '';
              return found;
            }
            video.muted = true;
            const timer = setInterval(() => {
              if (video.paused) video.play().catch(() => {});
              if (video.currentTime > 0.7 || Date.now() - begin > 15000) {
                clearInterval(timer);
                const points = selector => [...document.querySelectorAll(selector)].map(line => line.points.length).join(' ');
                done([video.currentTime > 0.7 ? 'plays' : 'stands still',
                  video.canPlayType('application/vnd.apple.mpegurl') ? 'ladders' : 'files', video.currentSrc.replace(/.*[/]/, ''),
                  video.videoWidth + ' wide', document.querySelectorAll('img[src]').length + ' images',
                  [...document.images].every(image => image.naturalWidth > 0) ? 'loaded' : 'missing',
                  points('svg polyline'), document.querySelector('h1').textContent, faults().join(', ') || 'fits'].join('|'));
              }
            }, 50);
            """;

    private PageCheck() {
    }

    public static void main(String[] arguments) throws Exception {
        Path directory = Path.of(arguments[0]).toRealPath();
        boolean right;
        try (FileServer server = new FileServer(); Browser browser = new Browser()) {
            server.add("/", directory);
            right = opens(browser, server.address() + "/index.html", arguments[1]);
            right &= opens(browser, directory.resolve("index.html").toUri().toString(), arguments[2]);
            right &= opens(browser, arguments[3], arguments[4]);
        }
        System.exit(right ? 0 : 1);
    }

    private static boolean opens(Browser browser, String page, String expected) throws Exception {
        browser.open(page);
        String found = browser.execute(PLAYS);
        String log = browser.log();
        boolean right = found.matches(expected) && log.equals("{\"value\":[]}");
        System.out.println(page + "\n  " + found + "\n  console: " + log + (right ? "" : "\n  expected: " + expected));
        return right;
    }
}
