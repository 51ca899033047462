<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de_DE">
<context>
    <name>Announcement</name>
    <message>
        <source>Paused</source>
        <translation>Pausiert</translation>
    </message>
    <message>
        <source>Playing</source>
        <translation>Spielbereit</translation>
    </message>
    <message>
        <source>All notes off</source>
        <translation>Alle Noten aus</translation>
    </message>
    <message>
        <source>Connected to %1</source>
        <translation>Verbunden mit %1</translation>
    </message>
    <message>
        <source>%1 disconnected</source>
        <translation>%1 getrennt</translation>
    </message>
    <message>
        <source>Nothing is connected to PLK</source>
        <translation>Nichts ist mit PLK verbunden</translation>
    </message>
    <message>
        <source>Cannot connect to %1</source>
        <translation>Keine Verbindung mit %1 möglich</translation>
    </message>
    <message>
        <source>MIDI output lost</source>
        <translation>MIDI-Ausgang verloren</translation>
    </message>
    <message>
        <source>MIDI output back</source>
        <translation>MIDI-Ausgang wieder da</translation>
    </message>
    <message>
        <source>%1, %2 of %3</source>
        <translation>%1, %2 von %3</translation>
    </message>
    <message>
        <source>minus %1</source>
        <translation>minus %1</translation>
    </message>
    <message>
        <source>plus %1</source>
        <translation>plus %1</translation>
    </message>
    <message>
        <source>Sound font not found: %1</source>
        <translation>Soundfont nicht gefunden: %1</translation>
    </message>
    <message>
        <source>Sound font could not be read: %1</source>
        <translation>Soundfont nicht lesbar: %1</translation>
    </message>
    <message>
        <source>Audio output failed: %1</source>
        <translation>Audioausgabe fehlgeschlagen: %1</translation>
    </message>
</context>
<context>
    <name>Connections</name>
    <message>
        <source>MIDI: %1, no port</source>
        <translation>MIDI: %1, kein Port</translation>
    </message>
    <message>
        <source>MIDI: %1, port PLK:PLK, connected to %2</source>
        <translation>MIDI: %1, Port PLK:PLK, verbunden mit %2</translation>
    </message>
    <message>
        <source>MIDI: %1, port PLK:PLK, not connected</source>
        <translation>MIDI: %1, Port PLK:PLK, nicht verbunden</translation>
    </message>
    <message>
        <source>MIDI: %1, port PLK:PLK</source>
        <translation>MIDI: %1, Port PLK:PLK</translation>
    </message>
    <message>
        <source>Built-in synthesizer</source>
        <translation>Eingebauter Synthesizer</translation>
    </message>
</context>
<context>
    <name>Property</name>
    <message>
        <source>%1: %2</source>
        <translation>%1: %2</translation>
    </message>
    <message>
        <source>Channel</source>
        <translation>Kanal</translation>
    </message>
    <message>
        <source>Program</source>
        <translation>Programm</translation>
    </message>
    <message>
        <source>Bank</source>
        <translation>Bank</translation>
    </message>
    <message>
        <source>Volume</source>
        <translation>Lautstärke</translation>
    </message>
    <message>
        <source>Pan</source>
        <translation>Panorama</translation>
    </message>
    <message>
        <source>Reverb</source>
        <translation>Hall</translation>
    </message>
    <message>
        <source>Chorus</source>
        <translation>Chorus</translation>
    </message>
    <message>
        <source>Transpose</source>
        <translation>Transponierung</translation>
    </message>
</context>
<context>
    <name>plinkora::ConnectionsView</name>
    <message>
        <source>%1, playing</source>
        <translation>%1, spielt</translation>
    </message>
    <message>
        <source>%1, off</source>
        <translation>%1, aus</translation>
    </message>
    <message>
        <source>%1, remembered, not there now</source>
        <translation>%1, gemerkt, derzeit nicht vorhanden</translation>
    </message>
    <message>
        <source>%1, connected</source>
        <translation>%1, verbunden</translation>
    </message>
    <message>
        <source>%1, not connected</source>
        <translation>%1, nicht verbunden</translation>
    </message>
    <message>
        <source>%1 (not there now)</source>
        <translation>%1 (derzeit nicht vorhanden)</translation>
    </message>
    <message>
        <source>The MIDI inputs PLK can play into. Space connects or disconnects the selected one.</source>
        <translation>Die MIDI-Eingänge, in die PLK spielen kann. Die Leertaste verbindet oder trennt den ausgewählten.</translation>
    </message>
    <message>
        <source>Connections</source>
        <translation>Verbindungen</translation>
    </message>
</context>
<context>
    <name>plinkora::KeyboardView</name>
    <message>
        <source>MIDI Device Active</source>
        <translation>MIDI-Gerät aktiv</translation>
    </message>
    <message>
        <source>Cmd</source>
        <translation>Cmd</translation>
    </message>
    <message>
        <source>Ctrl</source>
        <translation>Strg</translation>
    </message>
    <message>
        <source>KEYBOARD LAYOUT:</source>
        <translation>TASTATURBELEGUNG:</translation>
    </message>
    <message>
        <source>Number Keys (1-9, 0): Change octave</source>
        <translation>Zifferntasten (1-9, 0): Oktave wechseln</translation>
    </message>
    <message>
        <source>Piano Keys:</source>
        <translation>Klaviertasten:</translation>
    </message>
    <message>
        <source>  W E   T Y U   O P   ]: Black keys (sharps)</source>
        <translation>  W E   T Y U   O P   ]: Schwarze Tasten (Kreuze)</translation>
    </message>
    <message>
        <source>A S D F G H J K L ; ` &apos;: White keys</source>
        <translation>A S D F G H J K L ; ` &apos;: Weiße Tasten</translation>
    </message>
    <message>
        <source>Q R I [ \: Extended (G# A A# B C)</source>
        <translation>Q R I [ \: Erweitert (Gis A Ais H C)</translation>
    </message>
    <message>
        <source>Velocity: Z=20  X=40  C=60  V=80  B=100  N=115  M=120  ,=127</source>
        <translation>Anschlag: Z=20  X=40  C=60  V=80  B=100  N=115  M=120  ,=127</translation>
    </message>
    <message>
        <source>Benders:</source>
        <translation>Bender:</translation>
    </message>
    <message>
        <source>Up/down: Pitch Bend,  left/right: Modulation, period: Toggle Pitch Auto-Release, slash: Toggle Mod Auto-Release.</source>
        <translation>Auf/Ab: Pitch Bend,  Links/Rechts: Modulation, Punkt: Pitch-Rückstellung ein/aus, Schrägstrich: Mod-Rückstellung ein/aus.</translation>
    </message>
    <message>
        <source>This app appears as &quot;PLK&quot; in other MIDI applications.</source>
        <translation>Diese App erscheint in anderen MIDI-Programmen als „PLK“.</translation>
    </message>
    <message>
        <source>Keep this window focused to play. %1+Q to quit, %1+, for preferences.</source>
        <translation>Zum Spielen dieses Fenster im Vordergrund lassen. %1+Q beendet, %1+, öffnet die Einstellungen.</translation>
    </message>
    <message>
        <source>Plinkora</source>
        <translation>Plinkora</translation>
    </message>
    <message>
        <source>Octave: %1</source>
        <translation>Oktave: %1</translation>
    </message>
    <message>
        <source>Velocity: %1</source>
        <translation>Anschlag: %1</translation>
    </message>
    <message>
        <source>Pitch: %1</source>
        <translation>Tonhöhe: %1</translation>
    </message>
    <message>
        <source>Mod: %1</source>
        <translation>Mod: %1</translation>
    </message>
    <message>
        <source>Plinkora keyboard</source>
        <translation>Plinkora-Tastatur</translation>
    </message>
</context>
<context>
    <name>plinkora::MainWindow</name>
    <message>
        <source>Plinkora</source>
        <translation>Plinkora</translation>
    </message>
    <message>
        <source>About Plinkora</source>
        <translation>Über Plinkora</translation>
    </message>
    <message>
        <source>Preferences...</source>
        <translation>Einstellungen...</translation>
    </message>
    <message>
        <source>Quit Plinkora</source>
        <translation>Plinkora beenden</translation>
    </message>
</context>
<context>
    <name>plinkora::PreferencesWindow</name>
    <message>
        <source>Preferences</source>
        <translation>Einstellungen</translation>
    </message>
    <message>
        <source>Bender Settings</source>
        <translation>Bender-Einstellungen</translation>
    </message>
    <message>
        <source>Pitch Bend Speed:</source>
        <translation>Pitch-Bend-Tempo:</translation>
    </message>
    <message>
        <source>Pitch Bend Speed</source>
        <translation>Pitch-Bend-Tempo</translation>
    </message>
    <message>
        <source>Modulation Speed:</source>
        <translation>Modulationstempo:</translation>
    </message>
    <message>
        <source>Modulation Speed</source>
        <translation>Modulationstempo</translation>
    </message>
    <message>
        <source>Function Key MIDI Controllers</source>
        <translation>Controller der Funktionstasten</translation>
    </message>
    <message>
        <source>F%1 CC:</source>
        <translation>F%1 CC:</translation>
    </message>
    <message>
        <source>F%1 MIDI CC number</source>
        <translation>F%1 MIDI-CC-Nummer</translation>
    </message>
    <message>
        <source>Sound font:</source>
        <translation>Soundfont:</translation>
    </message>
    <message>
        <source>Choose…</source>
        <translation>Wählen…</translation>
    </message>
    <message>
        <source>Choose sound font</source>
        <translation>Soundfont wählen</translation>
    </message>
    <message>
        <source>Sound font</source>
        <translation>Soundfont</translation>
    </message>
    <message>
        <source>Choose a sound font</source>
        <translation>Einen Soundfont wählen</translation>
    </message>
    <message>
        <source>Sound fonts (*.sf2 *.sf3)</source>
        <translation>Soundfonts (*.sf2 *.sf3)</translation>
    </message>
    <message>
        <source>Audio device:</source>
        <translation>Audiogerät:</translation>
    </message>
    <message>
        <source>Audio device</source>
        <translation>Audiogerät</translation>
    </message>
    <message>
        <source>Automatic</source>
        <translation>Automatisch</translation>
    </message>
</context>
</TS>
