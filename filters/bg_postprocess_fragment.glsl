// Puts the person over a new background by a segmentation score map, whose
// red holds the score from 0 to 255.
varying vec2 textureCoordinate;
uniform sampler2D fgImageTexture;
uniform sampler2D bgImageTexture;
uniform sampler2D scoreMapTexture;

void main()
{
    float score = texture2D(scoreMapTexture, textureCoordinate).r / 255.0;
    vec3 fg = texture2D(fgImageTexture, textureCoordinate).rgb;
    vec3 bg = texture2D(bgImageTexture, textureCoordinate).rgb;
    gl_FragColor = vec4(fg * score + bg * (1.0 - score), 1.0);
}
